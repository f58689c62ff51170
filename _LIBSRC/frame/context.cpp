// The life of the thread's record. The loading thread gets one when the module is loaded, another
// thread when it starts or, where its start was not seen, at its first call.
#include "frame/context.h"

#include <new>

namespace {

// All fields 0, which is what the modes, counts, capacities and pointers start from; but for the
// handler.
void setUp(void* record) {
    auto* context = new (record) KTContext{};
    context->errHandler = KTWinError;
}

constexpr platform::RecordForm form{sizeof(KTContext), setUp};

// Loading and unloading the module. In a static build its life is that of the program's static
// objects; whoever calls outside of it gets a record on first use.
struct ModuleLife {
    ModuleLife() { platform::loadModule(form); }
    ~ModuleLife() { platform::unloadModule(); }
} moduleLife;

} // namespace

KTContext* ktlFirstContext() {
    void* record = platform::startThread(form);
    if (record == nullptr)
        platform::fatalExit("KTlib. Problem to allocate memory for TLS KTL context.");
    return static_cast<KTContext*>(record);
}

const KTLibVersion* KTGetLibVersion(void) {
    static constexpr KTLibVersion version{
        4,    0, 18, "ktlp6.dll", "Version 4.1 Beta Release", "[4.00.18, 01/21/99]", "Jan 26 1999",
        "DLL"};
    return &version;
}
