#include "platform.h"

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <pthread.h>
#include <unistd.h>

namespace platform {

constinit thread_local void* threadSlot = nullptr;

namespace {

// A thread's end is seen through two thread-specific values, both the record's address. `endKey` has a
// destructor of this module: it empties the slot, so that whatever the thread still calls gets a new record.
// `releaseKey` has the standard free. When the module is unloaded the first key goes; the second stays if
// other threads still hold records: each is then released at its thread's end by code that is certain to be
// there. Unloading therefore neither leaves a destructor in unmapped code nor loses a record, and never
// touches the record of a thread that may be running.
pthread_key_t endKey;
pthread_key_t releaseKey;
pthread_once_t keysOnce = PTHREAD_ONCE_INIT;
constinit std::atomic<bool> haveKeys = false;
constinit std::atomic<int> registeredThreads = 0;

bool setBoth(void* value) {
    return pthread_setspecific(releaseKey, value) == 0 && pthread_setspecific(endKey, value) == 0;
}

// The order of the two destructors is not defined: a value that is still there has not been freed.
void threadEnds(void* record) {
    threadSlot = nullptr;
    --registeredThreads;
    if (pthread_getspecific(releaseKey) != record) return;
    pthread_setspecific(releaseKey, nullptr);
    std::free(record);
}

void makeKeys() {
    if (pthread_key_create(&endKey, threadEnds) != 0) return;
    if (pthread_key_create(&releaseKey, std::free) == 0)
        haveKeys = true;
    else
        pthread_key_delete(endKey);
}

// A record that cannot be registered serves all the same and stays when its thread ends.
void registerRecord(void* record) {
    pthread_once(&keysOnce, makeKeys);
    if (!haveKeys) return;
    if (setBoth(record))
        ++registeredThreads;
    else
        setBoth(nullptr);
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
    if (threadSlot == nullptr) startThread(form); // exhaustion: the first call tries again and tells
}

void unloadModule() {
    const bool keys = haveKeys.exchange(false);
    if (threadSlot != nullptr) {
        if (keys && pthread_getspecific(endKey) == threadSlot) {
            setBoth(nullptr);
            --registeredThreads;
        }
        std::free(threadSlot);
        threadSlot = nullptr;
    }
    if (!keys) return;
    pthread_key_delete(endKey);
    if (registeredThreads == 0) pthread_key_delete(releaseKey);
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

// The first letter of a line from the terminal, in lower case; 0 for an empty line and at the input's end.
// Read past the application's stdin, whose buffer is not ours to empty.
char readAnswer() {
    char letter = 0;
    char next;
    while (read(STDIN_FILENO, &next, 1) == 1 && next != '\n')
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
