// The shared module itself: load, use from threads, unload.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <dlfcn.h>

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
    for (const char* name : {"KTsAlloc2", "_Z9KTsAlloc2ii", "ownAllocFloats", "vsqError", "ktlFirstContext"})
        EXPECT_EQ(module.get<void*>(name), nullptr) << name;
}
