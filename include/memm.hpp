/* C++17 layer over the C API: owning references to pool objects, a scoped
 * guard for the global lock, and a string handle over dynstr records.
 *
 * Header-only: everything here is inline over the functions of memm.h and
 * dynstr.h, so it adds no symbol to the library and links against it like
 * any C caller. Nothing here throws; failures show as an empty handle or a
 * result code, so the layer fits programs built with -fno-exceptions. Only
 * dynstring::str() allocates C++ memory (the std::string it returns).
 *
 *     #include "memm.hpp"
 *
 *     struct session { uint32_t id; uint32_t bytes; };
 *
 *     memm::ref<session> s = memm::ref<session>::alloc(session_pool);
 *     if (!s) ...                          // pool depleted
 *     s->id = 7;
 *     memm::ref<session> other = s;        // second holder (memm_refalloc)
 *     memm::dynstring peer(name_pool, "10.0.0.1");
 *     std::string copy = peer.str();       // a copy, safe to keep
 *     {
 *         memm::lock_guard hold("stats update");
 *         ...                              // several calls, one critical section
 *     }
 */
#ifndef MEMM_HPP
#define MEMM_HPP

#include <stdint.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "dynstr.h"
#include "memm.h"

/* Inlined into the caller, so the library records the caller's code (not
 * this header's) as an object's allocation site in its listings. */
#if defined(__GNUC__) || defined(__clang__)
#define MEMM_HPP_ALLOC_SITE inline __attribute__((always_inline))
#else
#define MEMM_HPP_ALLOC_SITE inline
#endif

namespace memm {

/* ref<T>: one reference (one holder) of a pool object of type T.
 *
 *  - ref<T>::alloc(pool) takes a new zero-filled object of the pool
 *    (memm_calloc); the result is empty when the pool is depleted.
 *  - ref<T>::adopt(p) takes over a reference the caller already holds (an
 *    object from memm_calloc, dynstr_fromstring, memm_refalloc, ...);
 *    ref<T>::share(p) adds a holder of its own (memm_refalloc).
 *  - Copying adds a holder (memm_refalloc); destroying, reset() and
 *    assigning over a ref release one (memm_free), and the last holder's
 *    release gives the object back to its pool. Moving costs nothing.
 *  - release() hands the reference back to the caller, who then owes the
 *    memm_free; get() looks without taking.
 *
 * Each of these calls takes the global lock briefly (a copy, a release); a
 * ref itself is no more thread-safe than a plain pointer. Pool objects are
 * zero-filled memory, not constructed C++ objects: T must be a type for
 * which that is a valid value (no constructors, destructors or virtual
 * functions), hence the static_assert. A copy of an object that is no
 * longer live (released, or not a pool object) is empty, and the library
 * logs the bad reference. */
template <class T> class ref {
    static_assert(std::is_trivially_default_constructible_v<T> && std::is_trivially_destructible_v<T>,
                  "pool objects are zero-filled memory: T must have no constructor or destructor to run");

  public:
    ref() noexcept = default;
    ~ref() { reset(); }

    static MEMM_HPP_ALLOC_SITE ref alloc(uint32_t pool) noexcept { return adopt(static_cast<T *>(memm_calloc(pool))); }
    static ref adopt(T *obj) noexcept {
        ref r;
        r.obj_ = obj;
        return r;
    }
    static ref share(T *obj) noexcept { return adopt(obj ? static_cast<T *>(memm_refalloc(obj)) : nullptr); }

    ref(const ref &other) noexcept : obj_(other.obj_ ? static_cast<T *>(memm_refalloc(other.obj_)) : nullptr) {}
    ref(ref &&other) noexcept : obj_(other.release()) {}
    ref &operator=(const ref &other) noexcept {
        if (this != &other)
            *this = ref(other);
        return *this;
    }
    ref &operator=(ref &&other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    /* Releases the reference held (if any) and adopts obj (may be null). */
    void reset(T *obj = nullptr) noexcept {
        T *old = std::exchange(obj_, obj);
        if (old)
            memm_free(old);
    }
    /* The object, no longer owned: the caller releases it with memm_free. */
    [[nodiscard]] T *release() noexcept { return std::exchange(obj_, nullptr); }

    T *get() const noexcept { return obj_; }
    T *operator->() const noexcept { return obj_; }
    T &operator*() const noexcept { return *obj_; }
    explicit operator bool() const noexcept { return obj_ != nullptr; }

  private:
    T *obj_ = nullptr;
};

/* lock_guard: holds the library's global lock (memm_lock) for its scope,
 * so that several calls form one critical section that no other thread
 * enters. The lock is recursive: guards nest, and library calls made under
 * a guard work as usual. The reason is kept by pointer for the library's
 * "Could not lock" diagnostics: pass a string literal. Keep the section
 * short and never wait in it for a thread that uses the library. */
class lock_guard {
  public:
    explicit lock_guard(const char *reason = "memm::lock_guard") noexcept { memm_lock(reason); }
    ~lock_guard() { memm_unlock(); }
    lock_guard(const lock_guard &) = delete;
    lock_guard &operator=(const lock_guard &) = delete;
};

/* dynstring: owns one dynstr record of a string pool and releases it when
 * destroyed.
 *
 * The record's text lives in the pool's string buffers, where the library
 * moves it whenever it compacts them, so this class never hands out a
 * pointer to it: str() returns a std::string copy, taken under the lock.
 * Texts end at their first zero byte, and a record with a maximum size cuts
 * what is written to it.
 *
 *  - dynstring(pool, text) makes a new record holding a copy of text; it is
 *    empty (false) when the record or its text cannot be stored, or when
 *    pool is not a string pool (dynstr_initpool).
 *  - assign(text) replaces the text: MEMM_OK, or the result code of the
 *    failed write (the record then holds the empty string, as in dynstr.h).
 *  - Not copyable (a copy may fail, which a copy constructor cannot say):
 *    copy() makes a new record with the same text, or an empty handle.
 *  - adopt(d) takes over a record the caller holds; release() gives it up
 *    (the caller then releases it with memm_free); get() is the record
 *    itself, for the C functions of dynstr.h. */
class dynstring {
  public:
    dynstring() noexcept = default;
    MEMM_HPP_ALLOC_SITE dynstring(uint32_t pool, const char *text) noexcept
        : rec_(ref<dynstr>::adopt(dynstr_fromstring(pool, text))) {}
    MEMM_HPP_ALLOC_SITE dynstring(uint32_t pool, std::string_view text) noexcept
        : rec_(ref<dynstr>::adopt(dynstr_fromstring(pool, ""))) {
        // A view need not end with a zero byte: append exactly its characters.
        if (rec_ && assign(text) != MEMM_OK)
            rec_.reset();
    }
    dynstring(dynstring &&) noexcept = default;
    dynstring &operator=(dynstring &&) noexcept = default;
    dynstring(const dynstring &) = delete;
    dynstring &operator=(const dynstring &) = delete;

    static dynstring adopt(dynstr *d) noexcept {
        dynstring s;
        s.rec_.reset(d);
        return s;
    }
    [[nodiscard]] dynstr *release() noexcept { return rec_.release(); }
    dynstr *get() const noexcept { return rec_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(rec_); }

    /* A new record of the same pool with the same text, or an empty handle. */
    MEMM_HPP_ALLOC_SITE dynstring copy() const noexcept {
        return rec_ ? adopt(dynstr_fromdynstr(rec_.get())) : dynstring();
    }

    /* A copy of the text ("" for an empty handle). */
    std::string str() const {
        if (!rec_)
            return std::string();
        lock_guard hold("memm::dynstring::str");
        return std::string(dynstr_getstring_nolock(rec_.get()));
    }

    /* Replaces the text; MEMM_ERR_INVALID_ARG for an empty handle or a null text. */
    uint32_t assign(const char *text) noexcept {
        return rec_ ? dynstr_setstring(rec_.get(), text) : MEMM_ERR_INVALID_ARG;
    }
    uint32_t assign(std::string_view text) noexcept {
        if (!rec_)
            return MEMM_ERR_INVALID_ARG;
        lock_guard hold("memm::dynstring::assign");
        const uint32_t emptied = dynstr_setstring(rec_.get(), "");
        if (emptied != MEMM_OK || text.empty())
            return emptied;
        return dynstr_addstring_size(rec_.get(), text.data(),
                                     text.size() > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(text.size()));
    }

    /* Length of the text; 0 for an empty handle. */
    uint32_t size() const noexcept { return dynstr_strlen(rec_.get()); }
    bool empty() const noexcept { return size() == 0; }

  private:
    ref<dynstr> rec_;
};

} // namespace memm

#undef MEMM_HPP_ALLOC_SITE

#endif
