#pragma once

#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/String.h"
#include "harl/foundation/kz/TBuffer.h"

namespace vesk {

// A block cipher in a chaining mode, without padding.
//
// Both pairs of operations have the same contract:
// - `key` has getKeySize() bytes and `iv` getIVSize() bytes; a wrong key size or a null IV
//   throws kz::CInvalidArgError.
// - With `append` false the output replaces the content of `destination`; with `append`
//   true it goes behind the used bytes, which stay. The destination grows as needed and
//   keeps its memory otherwise. `source` must not point into `destination`.
// - encrypt takes `sourceLength` bytes of any length, fills the last block with zeros and
//   gives the length rounded up to whole blocks. decrypt takes whole blocks only (anything
//   else throws kz::CInvalidArgError) and gives as many bytes; whole blocks from the start
//   of a ciphertext decrypt to the start of the plaintext.
//
// encrypt/decrypt suit rare calls on key material: each call works in a context of its own
// that is wiped when the call returns. encryptData/decryptData are for bulk data: they
// re-use one context per cipher object and allocate nothing when the destination has room.
// An object is used by one caller at a time.
class ICipher : public virtual kz::IBase {
public:
    virtual kz::String getID() const = 0;
    virtual int getKeySize() const = 0;
    virtual int getBlockSize() const = 0;
    // The IV has one block.
    virtual int getIVSize() const = 0;

    virtual void encrypt(const kz::TCryptBuffer<unsigned char>& key, const unsigned char* source,
                         int sourceLength, kz::TBuffer<unsigned char>& destination, bool append,
                         const unsigned char* iv) = 0;
    virtual void decrypt(const kz::TCryptBuffer<unsigned char>& key, const unsigned char* source,
                         int sourceLength, kz::TBuffer<unsigned char>& destination, bool append,
                         const unsigned char* iv) = 0;

    virtual void encryptData(const kz::TCryptBuffer<unsigned char>& key,
                             const unsigned char* source, int sourceLength,
                             kz::TBuffer<unsigned char>& destination, bool append,
                             const unsigned char* iv) = 0;
    virtual void decryptData(const kz::TCryptBuffer<unsigned char>& key,
                             const unsigned char* source, int sourceLength,
                             kz::TBuffer<unsigned char>& destination, bool append,
                             const unsigned char* iv) = 0;
};

}  // namespace vesk
