// The C edge: every exported function runs its body through one of these, so
// that no C++ exception reaches a C caller.
//
//   KWZ_API int32_t KWAFoo(KWArray* a) {
//       return kwz::CEdge("Kwz.kwRecArr.KWAFoo", -1, -1, [&] { return recarr::Foo(a); });
//   }
//
// std::bad_alloc becomes the family's out-of-memory code and is logged at
// level 1 with the "SE_NOMEM" prefix; any other exception becomes the
// family's failure code and is logged at level 1 with its text.  The few
// functions whose contract is to throw for a structurally corrupt record
// (the header lists them) use CEdgeCorrupt, which lets DataCorrupt through.
#pragma once

#include <exception>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "base/kwLog.h"

namespace kwz {

// A structurally corrupt record (guard byte not 0).  what() is the function's
// name followed by " RE_DATACORRUPT", as callers that catch it compare.
class DataCorrupt : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

namespace detail {

inline void LogEdgeException(const char* tag) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        Log(1, tag ? tag : "Kwz", "SE_NOMEM: out of memory");
    } catch (const std::exception& e) {
        LogF(1, tag ? tag : "Kwz", "exception: %s", e.what());
    } catch (...) {
        Log(1, tag ? tag : "Kwz", "exception of unknown type");
    }
}

inline bool IsBadAlloc() noexcept {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace detail

// Runs body; returns its result, or outOfMemory / failure when it throws.
template <typename R, typename Fn>
R CEdge(const char* tag, R outOfMemory, R failure, Fn&& body) noexcept {
    try {
        return std::forward<Fn>(body)();
    } catch (...) {
        // Logging may itself fail (a throwing log callback): the code still
        // goes back.
        try {
            detail::LogEdgeException(tag);
        } catch (...) {
        }
        return detail::IsBadAlloc() ? outOfMemory : failure;
    }
}

// For functions without a result: an exception is logged and dropped.
template <typename Fn>
void CEdgeVoid(const char* tag, Fn&& body) noexcept {
    try {
        std::forward<Fn>(body)();
    } catch (...) {
        try {
            detail::LogEdgeException(tag);
        } catch (...) {
        }
    }
}

// As CEdge, but DataCorrupt passes through: only for the functions that the
// header says throw it.
template <typename R, typename Fn>
R CEdgeCorrupt(const char* tag, R outOfMemory, R failure, Fn&& body) {
    try {
        return std::forward<Fn>(body)();
    } catch (const DataCorrupt&) {
        throw;
    } catch (...) {
        try {
            detail::LogEdgeException(tag);
        } catch (...) {
        }
        return detail::IsBadAlloc() ? outOfMemory : failure;
    }
}

}  // namespace kwz
