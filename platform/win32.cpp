// Windows: the thread slot is a TLS index that the load notification serves; messages go to a
// message box, a fatal exit through the system's dialogue.
#include "platform.h"

#include <atomic>
#include <cstdarg>
#include <cstring>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace platform {
namespace {

// The slot's index; TLS_OUT_OF_INDEXES is -1.
constinit std::atomic<DWORD> slot = TLS_OUT_OF_INDEXES;

// What loadModule was told; the notices of the loader have no other way to learn it.
constinit const RecordForm* recordForm = nullptr;

// Whichever caller comes first takes the slot: the module's initialisation, or in a static build a
// call of the application's own initialisation, which may run earlier.
bool takeSlot() {
    if (slot != TLS_OUT_OF_INDEXES) return true;
    const DWORD taken = TlsAlloc();
    if (taken == TLS_OUT_OF_INDEXES) return false;
    DWORD none = TLS_OUT_OF_INDEXES;
    if (!slot.compare_exchange_strong(none, taken)) TlsFree(taken); // another thread was faster
    return true;
}

} // namespace

void* threadRecord() {
    return TlsGetValue(slot.load(std::memory_order_relaxed)); // null for the index -1
}

void* startThread(const RecordForm& form) {
    if (!takeSlot()) return nullptr;
    void* record = LocalAlloc(LPTR, form.bytes); // LPTR: 0x40, fixed and zero-filled
    if (record == nullptr) return nullptr;
    form.setUp(record);
    if (TlsSetValue(slot, record)) return record;
    LocalFree(record);
    return nullptr;
}

void loadModule(const RecordForm& form) {
    recordForm = &form;
    if (takeSlot() && threadRecord() == nullptr) startThread(form);
}

void unloadModule() {
    const DWORD taken = slot.exchange(TLS_OUT_OF_INDEXES);
    if (taken == TLS_OUT_OF_INDEXES) return;
    LocalFree(TlsGetValue(taken)); // null is allowed
    TlsFree(taken);
}

namespace {

// The module's initialisers have run loadModule before this; what it could not get is refused here.
bool processAttach() {
    if (recordForm == nullptr) return true;
    return threadRecord() != nullptr || startThread(*recordForm) != nullptr;
}

bool threadAttach() {
    return recordForm == nullptr || startThread(*recordForm) != nullptr;
}

// The slot is not reset: the thread has made its last call.
void threadDetach() {
    if (slot != TLS_OUT_OF_INDEXES) LocalFree(threadRecord());
}

} // namespace

bool notify(unsigned long reason) {
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        return processAttach();
    case DLL_THREAD_ATTACH:
        return threadAttach();
    case DLL_THREAD_DETACH:
        threadDetach();
        return true;
    case DLL_PROCESS_DETACH:
        unloadModule();
        return true;
    default:
        return true;
    }
}

BoxAnswer messageBox(const char* text, const char* caption, BoxButtons buttons) {
    return static_cast<BoxAnswer>(MessageBoxA(nullptr, text, caption, static_cast<UINT>(buttons)));
}

void fatalExit(const char* text) {
    FatalAppExitA(0, text);
    ExitProcess(1); // not reached; the call is not declared as final
}

void formatText(char* buffer, std::size_t size, const char* format, ...) {
    char whole[1025]; // the system's formatter writes 1024 characters at most
    std::va_list arguments;
    va_start(arguments, format);
    wvsprintfA(whole, format, arguments);
    va_end(arguments);
    whole[1024] = 0;
    std::strncpy(buffer, whole, size - 1);
    buffer[size - 1] = 0;
}

} // namespace platform
