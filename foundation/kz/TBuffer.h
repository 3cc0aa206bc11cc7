#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/SecureZero.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace kz {

// A growable array of trivially copyable elements with a used length.
//
// A buffer is a value (copying copies the elements) and also reference counted, so that a
// buffer on the heap can be handed out through P<TBuffer<T>>. A buffer that lives inside
// another object or on the stack must never be put into a P.
//
// Invariant: 0 <= used <= allocated; `data` holds `allocated` elements aligned to `align`
// bytes. Growing keeps the used elements; new elements are uninitialised. Counts are in
// elements, not bytes. A buffer made for key material (TCryptBuffer) zeroes every block it
// frees, reallocations included.
template <class T>
class TBuffer : public CBase {
    static_assert(std::is_trivially_copyable_v<T>, "TBuffer holds plain data only");

public:
    // `size` elements in use, content undefined; `align` -1 takes the default alignment.
    explicit TBuffer(size_t size = 0, int align = -1)
        : align(align <= 0 ? kDefaultAlign : static_cast<size_t>(align)) {
        setUsed(size);
    }

    TBuffer(const TBuffer& other) : CBase(), align(other.align), wipe(other.wipe) {
        assign(other.data, other.used);
    }

    TBuffer(TBuffer&& other) noexcept
        : CBase(),
          data(std::exchange(other.data, nullptr)),
          used(std::exchange(other.used, 0)),
          allocated(std::exchange(other.allocated, 0)),
          align(other.align),
          wipe(other.wipe) {}

    TBuffer& operator=(const TBuffer& other) {
        if (this != &other) {
            assign(other.data, other.used);
        }
        return *this;
    }

    TBuffer& operator=(TBuffer&& other) noexcept {
        if (this != &other && wipe == other.wipe) {
            freeBlock(data, allocated);
            data = std::exchange(other.data, nullptr);
            used = std::exchange(other.used, 0);
            allocated = std::exchange(other.allocated, 0);
            align = other.align;
        } else if (this != &other) {
            assign(other.data, other.used);
        }
        return *this;
    }

    ~TBuffer() override { freeBlock(data, allocated); }

    T* getData() { return data; }

    const T* getData() const { return data; }

    T& operator[](size_t index) { return data[index]; }

    const T& operator[](size_t index) const { return data[index]; }

    size_t getUsed() const { return used; }

    size_t getAllocated() const { return allocated; }

    // Sets the used length; elements below the old used length stay.
    void setUsed(size_t count) {
        ensureAllocated(count);
        used = count;
    }

    // Makes room for `count` elements without changing the used length or content.
    void ensureAllocated(size_t count) {
        if (count <= allocated) {
            return;
        }
        const size_t grown = std::max(count, allocated + allocated / 2);
        T* block = allocBlock(grown);
        if (used > 0) {
            std::memcpy(block, data, used * sizeof(T));
        }
        freeBlock(data, allocated);
        data = block;
        allocated = grown;
    }

    // Replaces the content with `count` elements from `source`.
    void assign(const T* source, size_t count) {
        if (source >= data && source < data + allocated) {
            std::memmove(data, source, count * sizeof(T));
            used = count;
            return;
        }
        used = 0;
        setUsed(count);
        if (count > 0) {
            std::memcpy(data, source, count * sizeof(T));
        }
    }

    // Appends `count` elements from `source`, which must not point into this buffer.
    void append(const T* source, size_t count) {
        const size_t at = used;
        setUsed(used + count);
        if (count > 0) {
            std::memcpy(data + at, source, count * sizeof(T));
        }
    }

    void fill(const T& value) { std::fill(data, data + used, value); }

    friend bool operator==(const TBuffer& a, const TBuffer& b) {
        return a.used == b.used &&
               (a.used == 0 || std::memcmp(a.data, b.data, a.used * sizeof(T)) == 0);
    }

    friend bool operator!=(const TBuffer& a, const TBuffer& b) { return !(a == b); }

protected:
    static constexpr size_t kDefaultAlign = 16;

    struct CWipeOnFree {};

    TBuffer(CWipeOnFree, size_t size) : wipe(true) { setUsed(size); }

private:
    T* allocBlock(size_t count) const {
        return static_cast<T*>(::operator new(count * sizeof(T), std::align_val_t(align)));
    }

    void freeBlock(T* block, size_t count) const {
        if (block == nullptr) {
            return;
        }
        if (wipe) {
            secureZero(block, count * sizeof(T));
        }
        ::operator delete(block, std::align_val_t(align));
    }

    T* data = nullptr;
    size_t used = 0;
    size_t allocated = 0;
    size_t align = kDefaultAlign;
    bool wipe = false;
};

// A buffer for key material: every block it frees is zeroed first, reallocations included.
template <class T = unsigned char>
class TCryptBuffer : public TBuffer<T> {
public:
    explicit TCryptBuffer(size_t size = 0) : TBuffer<T>(typename TBuffer<T>::CWipeOnFree(), size) {}

    TCryptBuffer(const TCryptBuffer& other) : TBuffer<T>(typename TBuffer<T>::CWipeOnFree(), 0) {
        this->assign(other.getData(), other.getUsed());
    }

    TCryptBuffer& operator=(const TCryptBuffer& other) {
        this->assign(other.getData(), other.getUsed());
        return *this;
    }

    TCryptBuffer(TCryptBuffer&& other) noexcept : TBuffer<T>(std::move(other)) {}

    TCryptBuffer& operator=(TCryptBuffer&& other) noexcept {
        TBuffer<T>::operator=(std::move(other));
        return *this;
    }
};

}  // namespace kz
