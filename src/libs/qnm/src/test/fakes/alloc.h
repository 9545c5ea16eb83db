// alloc.h - counts heap allocations and makes them fail on demand.
//
// alloc.cpp replaces the global operators new and delete in all their forms, on top of malloc and
// free, so that the sanitizers keep watching. The library allocates by the forms with std::nothrow
// alone, so the others, which log4cxx, GoogleTest and the test itself use, succeed unless a test
// asks for them by name.
//
// Counts and failures belong to the calling thread, unless the name says otherwise. A failure
// happens once.
#pragma once

#include <cstdint>

namespace alloc {

struct counts_t {
    std::uint64_t allocations = 0;  // all forms, nothrow and failed ones included
    std::uint64_t nothrow = 0;      // the nothrow forms among them
    std::uint64_t failed = 0;       // the ones made to fail
    std::uint64_t frees = 0;        // deletes of anything but a null pointer
};

// By the calling thread since it started.
counts_t counts();

// The n-th nothrow allocation from now (1 = the next) on this thread fails; 0 takes it back.
void fail_nth(std::uint64_t n);

// The same for the n-th throwing allocation on this thread. The log calls need it, because log4cxx
// allocates that way.
void fail_nth_throwing(std::uint64_t n);

// The same for the n-th nothrow allocation on any thread, for code that runs threads of its own.
// Independent of fail_nth.
void fail_nth_anywhere(std::uint64_t n);

// Takes back all failures; returns whether none was left.
bool all_used();

// Allocations that body makes on this thread.
template <typename Body>
std::uint64_t count_in(Body&& body) {
    const std::uint64_t before = counts().allocations;
    body();
    return counts().allocations - before;
}

}  // namespace alloc
