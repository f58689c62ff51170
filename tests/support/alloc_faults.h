// Makes the n-th allocation of the library fail, and counts blocks, through the linker's wrap of
// the allocators. Only this thread is affected and only between arm() and disarm(), so the test
// framework's own memory is left alone.
#pragma once

namespace support::alloc {

// the failAt-th allocation from now on (counting from 1) returns null; 0: none does
void arm(int failAt);
void armFrom(int failFrom); // the same, and all later ones fail too
void disarm();
bool failed();      // whether an allocation was made to fail since arm()
long allocations(); // allocations seen since arm(), the failed one included
long bytes();       // asked for since arm(), whatever was released meanwhile
// blocks taken less blocks released on this thread since the program's start, always
long liveBlocks();
// counted
long liveBlocksOfProcess(); // the same over all threads

// Runs `operation(n)` with the n-th allocation failing, for n = 1, 2, ..., until a run needs fewer
// than n; that last run has succeeded. `afterFailure()` checks what a failed run must leave.
// Returns the number of failing runs.
template <class Operation, class AfterFailure>
int failEach(Operation operation, AfterFailure afterFailure) {
    for (int n = 1;; ++n) {
        arm(n);
        operation();
        const bool didFail = failed();
        disarm();
        if (!didFail) return n - 1;
        afterFailure();
    }
}

} // namespace support::alloc
