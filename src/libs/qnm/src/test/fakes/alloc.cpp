// alloc.cpp - the replaced global operators new and delete; see alloc.h.
//
// All forms end in two functions. The counts of a thread need no constructor, because allocations
// happen before any of ours could run.

#include "alloc.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace alloc {
namespace {

constinit thread_local counts_t t_counts;
constinit thread_local std::uint64_t t_until_failure = 0;  // 0: none is due
constinit thread_local std::uint64_t t_until_throw = 0;
constinit std::atomic<std::uint64_t> g_until_failure_anywhere = 0;  // 0: none is due

bool due(std::uint64_t& until_failure) {
    return until_failure != 0 && --until_failure == 0;
}

bool due_anywhere() {
    std::uint64_t left = g_until_failure_anywhere.load(std::memory_order_relaxed);
    while (left != 0) {
        if (g_until_failure_anywhere.compare_exchange_weak(left, left - 1,
                                                           std::memory_order_relaxed)) {
            return left == 1;
        }
    }
    return false;
}

void* take(std::size_t size, std::size_t alignment) noexcept {
    t_counts.allocations++;
    if (size == 0) size = 1;
    if (alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) return std::malloc(size);
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* take_or_throw(std::size_t size, std::size_t alignment) {
    if (due(t_until_throw)) {
        t_counts.allocations++;
        t_counts.failed++;
        throw std::bad_alloc();
    }
    void* block = take(size, alignment);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void* take_or_null(std::size_t size, std::size_t alignment) noexcept {
    t_counts.nothrow++;
    const bool here = due(t_until_failure);
    const bool anywhere = due_anywhere();
    if (!here && !anywhere) return take(size, alignment);
    t_counts.allocations++;
    t_counts.failed++;
    return nullptr;
}

void give_back(void* block) noexcept {
    if (block != nullptr) t_counts.frees++;
    std::free(block);
}

constexpr std::size_t k_default = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

constexpr std::size_t bytes(std::align_val_t alignment) {
    return static_cast<std::size_t>(alignment);
}

}  // namespace

counts_t counts() {
    return t_counts;
}

void fail_nth(std::uint64_t n) {
    t_until_failure = n;
}

void fail_nth_throwing(std::uint64_t n) {
    t_until_throw = n;
}

void fail_nth_anywhere(std::uint64_t n) {
    g_until_failure_anywhere = n;
}

bool all_used() {
    const bool used = t_until_failure == 0 && t_until_throw == 0 && g_until_failure_anywhere == 0;
    t_until_failure = 0;
    t_until_throw = 0;
    g_until_failure_anywhere = 0;
    return used;
}

}  // namespace alloc

using std::align_val_t;
using std::nothrow_t;

void* operator new(std::size_t n) {
    return alloc::take_or_throw(n, alloc::k_default);
}
void* operator new[](std::size_t n) {
    return alloc::take_or_throw(n, alloc::k_default);
}
void* operator new(std::size_t n, align_val_t a) {
    return alloc::take_or_throw(n, alloc::bytes(a));
}
void* operator new[](std::size_t n, align_val_t a) {
    return alloc::take_or_throw(n, alloc::bytes(a));
}
void* operator new(std::size_t n, const nothrow_t&) noexcept {
    return alloc::take_or_null(n, alloc::k_default);
}
void* operator new[](std::size_t n, const nothrow_t&) noexcept {
    return alloc::take_or_null(n, alloc::k_default);
}
void* operator new(std::size_t n, align_val_t a, const nothrow_t&) noexcept {
    return alloc::take_or_null(n, alloc::bytes(a));
}
void* operator new[](std::size_t n, align_val_t a, const nothrow_t&) noexcept {
    return alloc::take_or_null(n, alloc::bytes(a));
}

void operator delete(void* p) noexcept {
    alloc::give_back(p);
}
void operator delete[](void* p) noexcept {
    alloc::give_back(p);
}
void operator delete(void* p, std::size_t) noexcept {
    alloc::give_back(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    alloc::give_back(p);
}
void operator delete(void* p, align_val_t) noexcept {
    alloc::give_back(p);
}
void operator delete[](void* p, align_val_t) noexcept {
    alloc::give_back(p);
}
void operator delete(void* p, std::size_t, align_val_t) noexcept {
    alloc::give_back(p);
}
void operator delete[](void* p, std::size_t, align_val_t) noexcept {
    alloc::give_back(p);
}
void operator delete(void* p, const nothrow_t&) noexcept {
    alloc::give_back(p);
}
void operator delete[](void* p, const nothrow_t&) noexcept {
    alloc::give_back(p);
}
void operator delete(void* p, align_val_t, const nothrow_t&) noexcept {
    alloc::give_back(p);
}
void operator delete[](void* p, align_val_t, const nothrow_t&) noexcept {
    alloc::give_back(p);
}
