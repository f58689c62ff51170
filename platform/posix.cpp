// POSIX: the thread slot is a thread-local pointer. A thread's end is seen through a key's
// destructor, and a table of all records lets an unloaded module release them. Messages and
// questions go to the terminal.
#include "platform.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace platform {

constinit thread_local void* threadSlot = nullptr;

namespace {

// A thread's end is seen through a thread-specific value, the record's address, whose destructor is
// of this module. So the key has to go with the module, and the records of threads that still live
// are then released by the unloading itself: no code of this module is left for a later end of
// theirs. The table names them.
pthread_key_t endKey;
pthread_once_t keyOnce = PTHREAD_ONCE_INIT;
constinit std::atomic<bool> haveKey = false;

// Grows by whole pieces, which stay until the unloading. No lock, so that a process forked while
// another thread starts is not left with one that nobody opens.
struct RecordTable {
    std::atomic<void*> records[64];
    std::atomic<RecordTable*> rest;
};
constinit RecordTable firstTable{};

RecordTable* restOf(RecordTable& table) {
    RecordTable* rest = table.rest;
    if (rest != nullptr) return rest;
    auto* made = static_cast<RecordTable*>(std::calloc(1, sizeof(RecordTable)));
    if (made == nullptr) return nullptr;
    if (table.rest.compare_exchange_strong(rest, made)) return made;
    std::free(made); // another thread was faster
    return rest;
}

// Puts `to` where `from` stands; false where it stands nowhere.
bool replace(RecordTable& table, void* from, void* to) {
    for (std::atomic<void*>& record : table.records) {
        void* expected = from;
        if (record.compare_exchange_strong(expected, to)) return true;
    }
    return false;
}

void enter(void* record) {
    for (RecordTable* table = &firstTable; table != nullptr; table = restOf(*table))
        if (replace(*table, nullptr, record)) return;
}

void release(void* record) {
    for (RecordTable* table = &firstTable; table != nullptr; table = table->rest)
        if (replace(*table, record, nullptr)) break;
    std::free(record);
}

// The slot is emptied, so that whatever the thread still calls gets a new record.
void threadEnds(void* record) {
    threadSlot = nullptr;
    release(record);
}

void makeKey() {
    haveKey = pthread_key_create(&endKey, threadEnds) == 0;
}

// A record that cannot be registered serves all the same and stays until the module goes.
void registerRecord(void* record) {
    enter(record);
    pthread_once(&keyOnce, makeKey);
    if (haveKey) pthread_setspecific(endKey, record);
}

} // namespace

void* startThread(const RecordForm& form) {
    void* record = std::calloc(1, form.bytes);
    if (record == nullptr) return nullptr;
    form.setUp(record);
    registerRecord(record);
    threadSlot = record;
    return record;
}

void loadModule(const RecordForm& form) {
    // exhaustion: the first call tries again and tells
    if (threadSlot == nullptr) startThread(form);
}

namespace {

constinit std::atomic<bool> unloaded = false;

void releaseTablesAfter(RecordTable& table) {
    for (RecordTable* next = table.rest.exchange(nullptr); next != nullptr;) {
        RecordTable* const gone = next;
        next = gone->rest;
        std::free(gone);
    }
}

// Runs before unloadModule where the module is taken out of the process, and after it where the
// process ends: a process that ends destroys its objects before it closes its modules. Only in the
// first case can no other thread be inside the library.
[[gnu::destructor]] void releaseOtherThreads() {
    if (unloaded) return;
    for (RecordTable* table = &firstTable; table != nullptr; table = table->rest)
        for (std::atomic<void*>& record : table->records)
            if (record != threadSlot) std::free(record.exchange(nullptr));
    releaseTablesAfter(firstTable);
}

} // namespace

void unloadModule() {
    unloaded = true;
    if (haveKey.exchange(false)) pthread_key_delete(endKey);
    if (threadSlot == nullptr) return;
    release(threadSlot);
    threadSlot = nullptr;
}

namespace {

struct Button {
    BoxAnswer answer;
    const char* prompt; // an answer begins with the letter in brackets
    char letter;
};

struct Choice {
    Button first, second;
};

Choice choiceOf(BoxButtons buttons) {
    if (buttons == BoxButtons::okCancel)
        return {{BoxAnswer::ok, "[O]K", 'o'}, {BoxAnswer::cancel, "[C]ancel", 'c'}};
    return {{BoxAnswer::yes, "[Y]es", 'y'}, {BoxAnswer::no, "[N]o", 'n'}};
}

// The next character from the terminal; false at the input's end. A signal that a handler has seen
// to and an application that reads without waiting are no end. Read past the application's stdin,
// whose buffer is not ours to empty.
bool readCharacter(char& next) {
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, &next, 1);
        if (count >= 0) return count == 1;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            poll(&input, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
}

// The first letter of a line from the terminal, in lower case; 0 for an empty line and at the
// input's end.
char readAnswer() {
    char letter = 0;
    char next;
    while (readCharacter(next) && next != '\n')
        if (letter == 0 && next != ' ' && next != '\t')
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(next)));
    return letter;
}

BoxAnswer ask(const Choice& choice) {
    for (;;) {
        std::fprintf(stderr, "%s / %s: ", choice.first.prompt, choice.second.prompt);
        std::fflush(stderr);
        const char letter = readAnswer();
        if (letter == choice.first.letter || letter == 0) return choice.first.answer;
        if (letter == choice.second.letter) return choice.second.answer;
    }
}

} // namespace

BoxAnswer messageBox(const char* text, const char* caption, BoxButtons buttons) {
    const Choice choice = choiceOf(buttons);
    std::fprintf(stderr, "%s\n%s\n", caption, text);
    std::fflush(stderr);
    const bool canAsk = isatty(STDIN_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
    return canAsk ? ask(choice) : choice.first.answer;
}

void fatalExit(const char* text) {
    std::fprintf(stderr, "%s\n", text);
    std::fflush(stderr);
    _exit(EXIT_FAILURE);
}

void formatText(char* buffer, std::size_t size, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
}

} // namespace platform
