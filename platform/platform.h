// What the library needs of the operating system and the processor, and the only place that may ask
// them.
#pragma once

#include <cstddef>

namespace platform {

// ---- processor ----

// Whether this processor and its operating system support what a level of the kernels is compiled
// for (kernels/levels/levels.list names the questions).
bool anyProcessor();
bool processorHasAvx2();
bool processorHasAvx512();

// ---- the thread's record ----
//
// One slot of thread-local storage holds the address of one record per thread. A record is made by
// loadModule for the thread that loads the module, by the system's notice of a thread's start where
// there is one (the Windows DLL), and otherwise by the thread's first call. It is released, alone
// and without anything that it points to, at the thread's end and for the unloading thread at the
// module's unloading. The records of threads that outlive the unloading go with the module too; on
// Windows they stay, since the system's slot tells only the calling thread's. In a static Windows
// build no notice of a thread's end comes, and the record stays until the process ends.

// How the layer above makes a record: `bytes` zero-filled bytes, which setUp completes.
struct RecordForm {
    std::size_t bytes;
    void (*setUp)(void* record);
};

// The calling thread's record, or null where none was made yet: one read of the slot.
#if defined(_WIN32)
void* threadRecord();
#else
// The initial-exec model makes the read one instruction, where a module's default would call into
// the loader.
[[gnu::tls_model("initial-exec"),
  gnu::visibility("hidden")]] extern constinit thread_local void* threadSlot;

inline void* threadRecord() {
    return threadSlot;
}
#endif

// Makes the calling thread's record; null when there is no memory or no slot.
void* startThread(const RecordForm& form);

// Module load and unload. Loading takes the slot and makes the calling thread's record, unloading
// releases that record and the slot, whatever other threads still live. `form` stays valid in
// between. Threads that call before or after this get their record on first use.
void loadModule(const RecordForm& form);
void unloadModule();

#if defined(_WIN32)
// What the module's load notification does for each of its four reasons (0 process detach, 1
// process attach, 2 thread attach, 3 thread detach); false refuses the load.
bool notify(unsigned long reason);
#endif

// ---- the user ----

// The values are the system's style words: two buttons, the first is the default, system-modal.
enum class BoxButtons : unsigned { okCancel = 0x1001, yesNo = 0x1004 };
enum class BoxAnswer : int { ok = 1, cancel = 2, yes = 6, no = 7 };

// Shows the text and waits for an answer. Without a window system: asks on the terminal if standard
// input and standard error are one; otherwise nobody can answer, caption and text go to standard
// error, and the first button counts.
BoxAnswer messageBox(const char* text, const char* caption, BoxButtons buttons);

// Ends the process after showing the text, running no exit handlers: in a box of the system, or
// else on standard error with exit code 1.
[[noreturn]] void fatalExit(const char* text);

// printf's %s and %d into a buffer of `size` characters, the closing zero included; what does not
// fit is cut off.
[[gnu::format(printf, 3, 4)]] void formatText(char* buffer, std::size_t size, const char* format,
                                              ...);

} // namespace platform
