#pragma once

#include "harl/foundation/kz/IBase.h"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace kz {

// A nullable intrusive reference to an IBase object. Taking a raw pointer adds a reference,
// so `P<CFoo> foo(new CFoo)` owns the new object and a raw pointer handed to a constructor
// can be kept as a P by the callee.
template <class T>
class P {
public:
    P() = default;

    P(std::nullptr_t) {}

    P(T* object) : ptr(object) { retain(); }

    P(const P& other) : ptr(other.ptr) { retain(); }

    P(P&& other) noexcept : ptr(other.ptr) { other.ptr = nullptr; }

    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    P(const P<U>& other) : ptr(other.get()) {
        retain();
    }

    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    P(P<U>&& other)
    noexcept : ptr(other.detach()) {}

    ~P() { drop(); }

    P& operator=(const P& other) {
        P(other).swap(*this);
        return *this;
    }

    P& operator=(P&& other) noexcept {
        P(std::move(other)).swap(*this);
        return *this;
    }

    P& operator=(T* object) {
        P(object).swap(*this);
        return *this;
    }

    P& operator=(std::nullptr_t) {
        reset();
        return *this;
    }

    void reset() { P().swap(*this); }

    void swap(P& other) noexcept { std::swap(ptr, other.ptr); }

    T* get() const { return ptr; }

    T* operator->() const { return ptr; }

    T& operator*() const { return *ptr; }

    explicit operator bool() const { return ptr != nullptr; }

    // Gives up ownership without releasing: the caller takes over the reference.
    T* detach() {
        T* object = ptr;
        ptr = nullptr;
        return object;
    }

    // Down-cast: null when `from` is null, when the object refuses the cast, or when it is
    // not a T.
    template <class U>
    static P cast(const P<U>& from) {
        U* object = from.get();
        if (object == nullptr || !object->checkCastAllowed(typeid(T))) {
            return P();
        }
        return P(dynamic_cast<T*>(object));
    }

    friend bool operator==(const P& a, const P& b) { return a.ptr == b.ptr; }

    friend bool operator!=(const P& a, const P& b) { return a.ptr != b.ptr; }

    friend bool operator==(const P& a, std::nullptr_t) { return a.ptr == nullptr; }

    friend bool operator!=(const P& a, std::nullptr_t) { return a.ptr != nullptr; }

    friend bool operator<(const P& a, const P& b) { return a.ptr < b.ptr; }

private:
    void retain() {
        if (ptr != nullptr) {
            ptr->addRef();
        }
    }

    void drop() {
        if (ptr != nullptr) {
            ptr->release();
            ptr = nullptr;
        }
    }

    T* ptr = nullptr;
};

// Makes a new object owned by the returned reference.
template <class T, class... Args>
P<T> makeP(Args&&... args) {
    return P<T>(new T(std::forward<Args>(args)...));
}

}  // namespace kz
