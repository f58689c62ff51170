// What the library needs of the operating system and the processor, and the only place that may ask them.
#pragma once

namespace platform {

// Instruction sets for which the kernels are compiled, in ascending order.
enum class ProcessorLevel { baseline, avx2, avx512 };

// The highest level that this processor and its operating system support.
ProcessorLevel processorLevel();

} // namespace platform
