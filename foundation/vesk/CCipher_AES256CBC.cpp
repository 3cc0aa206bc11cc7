#include "harl/foundation/vesk/CCipher_AES256CBC.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/SecureZero.h"
#include "harl/foundation/vesk/OpenSSLErrors.h"

#include <openssl/evp.h>

#include <climits>
#include <cstring>
#include <memory>
#include <new>

namespace vesk {

namespace {

const int kKeySizeBytes = 32;
const int kBlockSizeBytes = 16;

struct CContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

EVP_CIPHER_CTX* newContext() {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    return context;
}

}  // namespace

// The arguments of one call of either pair.
struct CCipher_AES256CBC::CCall {
    const char* where;
    bool encrypt;
    const kz::TCryptBuffer<unsigned char>& key;
    const unsigned char* source;
    int sourceLength;
    kz::TBuffer<unsigned char>& destination;
    bool append;
    const unsigned char* iv;

    // Tests everything before the destination changes.
    void check() const {
        if (key.getUsed() != static_cast<size_t>(kKeySizeBytes)) {
            throw kz::CInvalidArgError(
                where, "Invalid key size for AES-256-CBC",
                kz::CProps().add("keySize", static_cast<long long>(key.getUsed())));
        }
        if (iv == nullptr) {
            throw kz::CInvalidArgError(where, "No IV given");
        }
        if (sourceLength < 0 || (source == nullptr && sourceLength > 0)) {
            throw kz::CInvalidArgError(where, "Invalid source",
                                       kz::CProps().add("sourceLength", sourceLength));
        }
        if (!encrypt && sourceLength % kBlockSizeBytes != 0) {
            throw kz::CInvalidArgError(where, "Ciphertext is not a whole number of blocks",
                                       kz::CProps().add("sourceLength", sourceLength));
        }
        if (sourceLength > INT_MAX - kBlockSizeBytes) {
            throw kz::CInvalidArgError(where, "Source too large",
                                       kz::CProps().add("sourceLength", sourceLength));
        }
        // The destination may move when it grows, which would leave `source` dangling.
        const unsigned char* begin = destination.getData();
        if (sourceLength > 0 && begin != nullptr && source >= begin &&
            source < begin + destination.getAllocated()) {
            throw kz::CInvalidArgError(where, "Source lies in the destination buffer");
        }
    }
};

CCipher_AES256CBC::CCipher_AES256CBC() {
    algorithm = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
    if (algorithm == nullptr) {
        throwOpenSSLError("Loading AES-256-CBC");
    }
}

CCipher_AES256CBC::~CCipher_AES256CBC() {
    EVP_CIPHER_CTX_free(bulkContext);
    EVP_CIPHER_free(algorithm);
}

kz::String CCipher_AES256CBC::getID() const {
    return "aes256cbc";
}

int CCipher_AES256CBC::getKeySize() const {
    return kKeySizeBytes;
}

int CCipher_AES256CBC::getBlockSize() const {
    return kBlockSizeBytes;
}

int CCipher_AES256CBC::getIVSize() const {
    return kBlockSizeBytes;
}

void CCipher_AES256CBC::encrypt(const kz::TCryptBuffer<unsigned char>& key,
                                const unsigned char* source, int sourceLength,
                                kz::TBuffer<unsigned char>& destination, bool append,
                                const unsigned char* iv) {
    runOnce(
        {"CCipher_AES256CBC::encrypt", true, key, source, sourceLength, destination, append, iv});
}

void CCipher_AES256CBC::decrypt(const kz::TCryptBuffer<unsigned char>& key,
                                const unsigned char* source, int sourceLength,
                                kz::TBuffer<unsigned char>& destination, bool append,
                                const unsigned char* iv) {
    runOnce(
        {"CCipher_AES256CBC::decrypt", false, key, source, sourceLength, destination, append, iv});
}

void CCipher_AES256CBC::encryptData(const kz::TCryptBuffer<unsigned char>& key,
                                    const unsigned char* source, int sourceLength,
                                    kz::TBuffer<unsigned char>& destination, bool append,
                                    const unsigned char* iv) {
    runBulk({"CCipher_AES256CBC::encryptData", true, key, source, sourceLength, destination, append,
             iv});
}

void CCipher_AES256CBC::decryptData(const kz::TCryptBuffer<unsigned char>& key,
                                    const unsigned char* source, int sourceLength,
                                    kz::TBuffer<unsigned char>& destination, bool append,
                                    const unsigned char* iv) {
    runBulk({"CCipher_AES256CBC::decryptData", false, key, source, sourceLength, destination,
             append, iv});
}

void CCipher_AES256CBC::runOnce(const CCall& call) {
    call.check();
    // Freeing the context wipes the key schedule, so nothing of the key outlives the call.
    std::unique_ptr<EVP_CIPHER_CTX, CContextDeleter> context(newContext());
    run(context.get(), false, call);
}

void CCipher_AES256CBC::runBulk(const CCall& call) {
    call.check();
    if (bulkContext == nullptr) {
        bulkContext = newContext();
    }
    try {
        run(bulkContext, bulkReady, call);
        bulkReady = true;
    } catch (...) {
        // A failed call may leave the context half set up; the next one starts afresh.
        EVP_CIPHER_CTX_reset(bulkContext);
        bulkReady = false;
        throw;
    }
}

// With `reuse` the context already holds the algorithm: setting only key and IV then costs
// no allocation, where naming the algorithm again would make a new provider context.
void CCipher_AES256CBC::run(EVP_CIPHER_CTX* context, bool reuse, const CCall& call) {
    const size_t base = call.append ? call.destination.getUsed() : 0;
    const int wholeBytes = call.sourceLength - call.sourceLength % kBlockSizeBytes;
    const int tailBytes = call.sourceLength - wholeBytes;
    const int outputBytes = wholeBytes + (tailBytes > 0 ? kBlockSizeBytes : 0);
    call.destination.setUsed(base + static_cast<size_t>(outputBytes));
    if (outputBytes == 0) {
        return;
    }
    unsigned char* output = call.destination.getData() + base;
    int written = 0;
    bool ok = EVP_CipherInit_ex2(context, reuse ? nullptr : algorithm, call.key.getData(), call.iv,
                                 call.encrypt ? 1 : 0, nullptr) == 1 &&
              EVP_CIPHER_CTX_set_padding(context, 0) == 1;
    if (ok && wholeBytes > 0) {
        ok = EVP_CipherUpdate(context, output, &written, call.source, wholeBytes) == 1 &&
             written == wholeBytes;
    }
    if (ok && tailBytes > 0) {
        // Only encryption has a tail: the last block is the rest of the input and zeros.
        unsigned char block[kBlockSizeBytes] = {};
        std::memcpy(block, call.source + wholeBytes, static_cast<size_t>(tailBytes));
        ok =
            EVP_CipherUpdate(context, output + wholeBytes, &written, block, kBlockSizeBytes) == 1 &&
            written == kBlockSizeBytes;
        kz::secureZero(block, sizeof(block));
    }
    if (ok) {
        ok = EVP_CipherFinal_ex(context, output + outputBytes, &written) == 1 && written == 0;
    }
    if (!ok) {
        call.destination.setUsed(base);
        throwOpenSSLError(call.encrypt ? "AES-256-CBC encryption" : "AES-256-CBC decryption");
    }
}

}  // namespace vesk
