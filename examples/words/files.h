// Files as a whole, with the cause in every failure, and folders that take their place in one step.
#pragma once

#include <cstdint>
#include <string>

namespace words {

/// What the system says of its last failure, behind a colon; nothing where it says nothing.
std::string systemCause();

/// A file's contents. Throws Failure with the cause.
std::string readFile(const std::string& path);

/// Writes a file that is whole and on its medium when this returns. Throws Failure with the cause.
void writeFile(const std::string& path, const std::string& contents);

// / Text for the standard output. Both throw Failure with the cause where some of it is lost; what
// is still buffered is lost / silently without flushOutput.
void printOut(const std::string& text);
void flushOutput();

/// FNV-1a, 64 bits (G. Fowler, L. C. Noll, K.-P. Vo): every change of a single byte changes it.
std::uint64_t checksum(const std::string& contents);

// / A folder that is filled beside its place and then takes it: whoever looks there finds the old
// one or the new one, / whole, even where the program is stopped in the middle.
class NewFolder {
public:
    explicit NewFolder(const std::string& place); ///< throws Failure when it can't be made
    ~NewFolder();                                 ///< what has not been put in place is gone
    NewFolder(const NewFolder&) = delete;
    NewFolder& operator=(const NewFolder&) = delete;

    const std::string& path() const { return aside; }

    // / Exchanges both folders in one step and removes the old one. Where the system can't do that
    // (`atOnce` false does / as if) the old one stands under PLACE.old for a moment, where
    // existingFolder finds it.
    void putInPlace(bool atOnce = true);

private:
    std::string place;
    std::string aside;
};

/// The folder itself, or PLACE.old where a replacement was interrupted between its two steps.
std::string existingFolder(const std::string& place);

} // namespace words
