// The DLL itself: load, use from threads, unload.
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace {

constexpr const char* path = KTL_BINARY_DIR "/ktlp6.dll";

using GetInt = int (*)();
using SetInt = void (*)(int);
using Handler = int (*)(int, const char*, const char*, const char*, int);
using Redirect = Handler (*)(Handler);

class Module {
public:
    Module() : handle(LoadLibraryA(path)) {}
    ~Module() { unload(); }

    bool loaded() const { return handle != nullptr; }
    template <class Function>
    Function get(const char* name) const {
        return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(handle, name)));
    }
    void unload() {
        if (handle == nullptr) return;
        EXPECT_TRUE(FreeLibrary(handle));
        handle = nullptr;
    }

private:
    HMODULE handle;
};

void expectDefaults(const Module& module) {
    EXPECT_EQ(module.get<GetInt>("KTGetStatus")(), 0);
    EXPECT_EQ(module.get<GetInt>("KTGetErrMode")(), 0);
    EXPECT_EQ(module.get<Redirect>("KTRedirectError")(nullptr), module.get<Handler>("KTWinError"));
}

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

} // namespace

TEST(SharedModule, LoadsAndUnloads) {
    Module module;
    ASSERT_TRUE(module.loaded()) << GetLastError();
    expectDefaults(module);
    module.unload();
    EXPECT_EQ(GetModuleHandleA("ktlp6.dll"), nullptr);
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
    steps.reach(2);
    user.join();
}

// More rounds than the system has slots: unloading gives them back.
TEST(SharedModule, LoadsAnyNumberOfTimes) {
    for (int i = 0; i < 1200; ++i) {
        Module module;
        ASSERT_TRUE(module.loaded()) << GetLastError();
        module.get<SetInt>("KTSetStatus")(-5);
    }
}

namespace {

// How many thread-local slots the process can still have.
std::size_t slotsToBeHad() {
    std::vector<DWORD> slots;
    for (DWORD slot; (slot = TlsAlloc()) != TLS_OUT_OF_INDEXES;)
        slots.push_back(slot);
    for (const DWORD slot : slots)
        TlsFree(slot);
    return slots.size();
}

// A thread calls the module and ends after it is gone.
void unloadUnderAThread() {
    Module module;
    ASSERT_TRUE(module.loaded()) << GetLastError();
    const auto setStatus = module.get<SetInt>("KTSetStatus");
    std::latch called(2), gone(1);
    std::thread user([&] {
        setStatus(-5);
        called.arrive_and_wait();
        gone.wait();
    });
    called.arrive_and_wait();
    module.unload();
    gone.count_down();
    user.join();
}

} // namespace

// More rounds than the system has slots.
TEST(SharedModule, GivesItsSlotBackWhereThreadsThatCalledOutliveIt) {
    const std::size_t before = slotsToBeHad();
    for (int i = 0; i < 1200 && !HasFailure(); ++i)
        unloadUnderAThread();
    EXPECT_EQ(slotsToBeHad(), before);
    EXPECT_EQ(GetModuleHandleA("ktlp6.dll"), nullptr);
}

TEST(SharedModule, RefusesToLoadWithoutASlot) {
    std::vector<DWORD> slots;
    for (DWORD slot; (slot = TlsAlloc()) != TLS_OUT_OF_INDEXES;)
        slots.push_back(slot);
    {
        const Module module;
        EXPECT_FALSE(module.loaded());
    }
    for (const DWORD slot : slots)
        TlsFree(slot);
    const Module module;
    EXPECT_TRUE(module.loaded());
}

TEST(SharedModule, HidesWhatIsNotExported) {
    Module module;
    EXPECT_NE(module.get<void*>("KTGetStatus"), nullptr);
    for (const char* name : {"KTsAlloc2", "allocFloats", "vsqError", "DllMain"})
        EXPECT_EQ(module.get<void*>(name), nullptr) << name;
}
