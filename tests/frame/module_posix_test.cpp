// The shared module itself: load, use from threads, unload.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <latch>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr const char* path = KTL_BINARY_DIR "/libktlp6.so";

using GetInt = int (*)();
using SetInt = void (*)(int);
using Handler = int (*)(int, const char*, const char*, const char*, int);
using Redirect = Handler (*)(Handler);

class Module {
public:
    Module() : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    ~Module() { unload(); }

    bool loaded() const { return handle != nullptr; }
    template <class Function>
    Function get(const char* name) const {
        return reinterpret_cast<Function>(dlsym(handle, name));
    }
    void unload() {
        if (handle == nullptr) return;
        EXPECT_EQ(dlclose(handle), 0);
        handle = nullptr;
    }

private:
    void* handle;
};

bool stillMapped() {
    void* again = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (again != nullptr) dlclose(again);
    return again != nullptr;
}

// Another thread that does what it is told, one step at a time.
class Steps {
public:
    void reach(int step) { reached = step; }
    void await(int step) const {
        while (reached < step)
            std::this_thread::yield();
    }

private:
    std::atomic<int> reached = 0;
};

void expectDefaults(const Module& module) {
    EXPECT_EQ(module.get<GetInt>("KTGetStatus")(), 0);
    EXPECT_EQ(module.get<GetInt>("KTGetErrMode")(), 0);
    const auto redirect = module.get<Redirect>("KTRedirectError");
    EXPECT_EQ(redirect(nullptr), module.get<Handler>("KTWinError"));
}

} // namespace

TEST(SharedModule, LoadsAndUnloads) {
    Module module;
    ASSERT_TRUE(module.loaded()) << dlerror();
    expectDefaults(module);
    module.unload();
    EXPECT_FALSE(stillMapped());
}

TEST(SharedModule, AThreadFromBeforeTheLoadGetsItsRecordAtItsFirstCall) {
    Steps steps;
    Module* shared = nullptr;
    std::thread early([&] {
        steps.await(1);
        expectDefaults(*shared);
        shared->get<SetInt>("KTSetErrMode")(2);
        EXPECT_EQ(shared->get<GetInt>("KTGetErrMode")(), 2);
    });
    Module module;
    shared = &module;
    module.get<SetInt>("KTSetErrMode")(1);
    steps.reach(1);
    early.join();
    EXPECT_EQ(module.get<GetInt>("KTGetErrMode")(), 1);
}

TEST(SharedModule, AThreadMayEndAfterTheUnload) {
    Steps steps;
    Module module;
    std::thread user([&] {
        module.get<SetInt>("KTSetStatus")(-5);
        steps.reach(1);
        steps.await(2);
    });
    steps.await(1);
    module.unload();
    EXPECT_FALSE(stillMapped());
    steps.reach(2);
    user.join(); // its destructors run now
}

TEST(SharedModule, AThreadThatOutlivedAnUnloadStartsAfreshInTheNextLoad) {
    Steps steps;
    Module* shared = nullptr;
    std::thread user([&] {
        steps.await(1);
        shared->get<SetInt>("KTSetStatus")(-5);
        steps.reach(2);
        steps.await(3);
        expectDefaults(*shared);
    });
    {
        Module first;
        shared = &first;
        steps.reach(1);
        steps.await(2);
    }
    Module second;
    shared = &second;
    steps.reach(3);
    user.join();
}

namespace {

// How many thread-specific keys the process can still have.
std::size_t keysToBeHad() {
    std::vector<pthread_key_t> keys;
    for (pthread_key_t key; pthread_key_create(&key, nullptr) == 0;)
        keys.push_back(key);
    for (const pthread_key_t key : keys)
        pthread_key_delete(key);
    return keys.size();
}

// `count` threads call the module and end after it is gone.
void unloadUnderThreads(int count) {
    Module module;
    ASSERT_TRUE(module.loaded()) << dlerror();
    const auto setStatus = module.get<SetInt>("KTSetStatus");
    std::latch called(count + 1), gone(1);
    std::vector<std::thread> users;
    for (int i = 0; i < count; ++i)
        users.emplace_back([&] {
            setStatus(-5);
            called.arrive_and_wait();
            gone.wait();
        });
    called.arrive_and_wait();
    module.unload();
    gone.count_down();
    for (std::thread& user : users)
        user.join();
}

} // namespace

// More rounds than the system has keys; not many more under a sanitizer, where each takes tens of
// milliseconds.
TEST(SharedModule, GivesItsSlotBackWhereThreadsThatCalledOutliveIt) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr int rounds = 1100;
#else
    constexpr int rounds = 3000;
#endif
    const std::size_t before = keysToBeHad();
    for (int i = 0; i < rounds && !HasFailure(); ++i)
        unloadUnderThreads(1);
    EXPECT_EQ(keysToBeHad(), before);
    EXPECT_FALSE(stillMapped());
}

// A leak checker sees whether their records went too.
TEST(SharedModule, GivesItsSlotBackWhereMoreThreadsOutliveItThanOneTableNames) {
    const std::size_t before = keysToBeHad();
    unloadUnderThreads(200);
    EXPECT_EQ(keysToBeHad(), before);
}

// The threads of a process that ends may still be inside the library when its objects are
// destroyed.
TEST(SharedModule, TheEndOfTheProcessTakesNoRecordFromThreadsThatRun) {
    const auto endAmongCalls = [] {
        std::atexit([] { usleep(20000); }); // after the module's objects went
        const auto* module = new Module;
        const auto setStatus = module->get<SetInt>("KTSetStatus");
        const auto getStatus = module->get<GetInt>("KTGetStatus");
        std::latch called(2);
        std::thread([&called, setStatus, getStatus] {
            setStatus(-5);
            called.arrive_and_wait();
            while (getStatus() == -5) {
            }
            _exit(1);
        }).detach();
        called.arrive_and_wait();
        std::exit(7);
    };
    EXPECT_EXIT(endAmongCalls(), testing::ExitedWithCode(7), "");
}

// More rounds than the system has thread-specific keys: unloading gives them back.
TEST(SharedModule, LoadsAnyNumberOfTimes) {
    for (int i = 0; i < 1500; ++i) {
        Module module;
        ASSERT_TRUE(module.loaded()) << dlerror();
        const auto setStatus = module.get<SetInt>("KTSetStatus");
        setStatus(-5);
        if (i % 50 == 0) std::thread([=] { setStatus(-3); }).join();
    }
}

TEST(SharedModule, HidesWhatIsNotExported) {
    Module module;
    EXPECT_NE(module.get<void*>("KTGetStatus"), nullptr);
    for (const char* name :
         {"KTsAlloc2", "_Z9KTsAlloc2ii", "allocFloats", "vsqError", "ktlFirstContext"})
        EXPECT_EQ(module.get<void*>(name), nullptr) << name;
}
