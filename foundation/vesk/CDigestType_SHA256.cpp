#include "harl/foundation/vesk/CDigestType_SHA256.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/vesk/OpenSSLErrors.h"

#include <openssl/evp.h>

#include <new>

namespace vesk {

namespace {

const int kSHA256SizeBytes = 32;

// A digest on the library's message digest context. Only reachable as an IDigest.
class CEVPDigest : public kz::CBase, public virtual IDigest {
public:
    explicit CEVPDigest(const char* algorithmName) {
        algorithm = EVP_MD_fetch(nullptr, algorithmName, nullptr);
        context = EVP_MD_CTX_new();
        try {
            if (algorithm == nullptr || context == nullptr) {
                throwOpenSSLError("Creating a digest");
            }
            size = EVP_MD_get_size(algorithm);
            reset();
        } catch (...) {
            releaseEngine();  // No destructor runs for an object that was never made.
            throw;
        }
    }

    CEVPDigest(const CEVPDigest&) = delete;
    CEVPDigest& operator=(const CEVPDigest&) = delete;

    void reset() override {
        finished = false;
        if (EVP_DigestInit_ex2(context, algorithm, nullptr) != 1) {
            throwOpenSSLError("Starting a digest");
        }
    }

    int getSize() const override { return size; }

    void update(const void* data, int length) override {
        if (length < 0 || (data == nullptr && length > 0)) {
            throw kz::CInvalidArgError("IDigest::update", "Invalid data",
                                       kz::CProps().add("length", length));
        }
        if (finished) {
            throw kz::CError("Internal error: IDigest::update was called after finish.");
        }
        if (length > 0 && EVP_DigestUpdate(context, data, static_cast<size_t>(length)) != 1) {
            throwOpenSSLError("Updating a digest");
        }
    }

    void finish() override {
        if (finished) {
            throw kz::CError("Internal error: IDigest::finish was called twice.");
        }
        if (EVP_DigestFinal_ex(context, result, nullptr) != 1) {
            throwOpenSSLError("Finishing a digest");
        }
        finished = true;
    }

    bool isFinished() const override { return finished; }

    const unsigned char* getData() const override {
        if (!finished) {
            throw kz::CError("Internal error: IDigest::getData was called before finish.");
        }
        return result;
    }

protected:
    ~CEVPDigest() override { releaseEngine(); }

private:
    void releaseEngine() {
        EVP_MD_CTX_free(context);
        EVP_MD_free(algorithm);
    }

    EVP_MD* algorithm = nullptr;
    EVP_MD_CTX* context = nullptr;
    int size = 0;
    bool finished = false;
    unsigned char result[EVP_MAX_MD_SIZE] = {};
};

}  // namespace

kz::String CDigestType_SHA256::getID() const {
    return "sha256";
}

int CDigestType_SHA256::getSize() const {
    return kSHA256SizeBytes;
}

void CDigestType_SHA256::createDigest(kz::P<IDigest>& digest) const {
    digest = new CEVPDigest("SHA256");
}

}  // namespace vesk
