#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/vesk/ICipher.h"

struct evp_cipher_st;
struct evp_cipher_ctx_st;

namespace vesk {

// AES with a 256-bit key in CBC mode: "aes256cbc", 32-byte keys, 16-byte blocks and IVs.
// The contract is ICipher's. Not copyable: the bulk context is the object's own.
class CCipher_AES256CBC : public kz::CBase, public virtual ICipher {
public:
    // Throws kz::CError when the cryptographic library has no AES-256-CBC.
    CCipher_AES256CBC();
    CCipher_AES256CBC(const CCipher_AES256CBC&) = delete;
    CCipher_AES256CBC& operator=(const CCipher_AES256CBC&) = delete;

    kz::String getID() const override;
    int getKeySize() const override;
    int getBlockSize() const override;
    int getIVSize() const override;

    void encrypt(const kz::TCryptBuffer<unsigned char>& key, const unsigned char* source,
                 int sourceLength, kz::TBuffer<unsigned char>& destination, bool append,
                 const unsigned char* iv) override;
    void decrypt(const kz::TCryptBuffer<unsigned char>& key, const unsigned char* source,
                 int sourceLength, kz::TBuffer<unsigned char>& destination, bool append,
                 const unsigned char* iv) override;
    void encryptData(const kz::TCryptBuffer<unsigned char>& key, const unsigned char* source,
                     int sourceLength, kz::TBuffer<unsigned char>& destination, bool append,
                     const unsigned char* iv) override;
    void decryptData(const kz::TCryptBuffer<unsigned char>& key, const unsigned char* source,
                     int sourceLength, kz::TBuffer<unsigned char>& destination, bool append,
                     const unsigned char* iv) override;

protected:
    // Frees the bulk context, which wipes the key schedule it holds.
    ~CCipher_AES256CBC() override;

private:
    struct CCall;

    void run(evp_cipher_ctx_st* context, bool reuse, const CCall& call);
    void runOnce(const CCall& call);
    void runBulk(const CCall& call);

    evp_cipher_st* algorithm = nullptr;
    // Made on the first bulk call; `bulkReady` tells whether it holds the algorithm, so that
    // later calls only set key and IV.
    evp_cipher_ctx_st* bulkContext = nullptr;
    bool bulkReady = false;
};

}  // namespace vesk
