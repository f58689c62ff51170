#include "files.h"

#include "library.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace words {
namespace {

namespace fs = std::filesystem;

struct Closer {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, Closer>;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw Failure(path + ": " + what + systemCause());
}

// / What has been written has to be on the medium before a folder with it replaces an older one.
// Systems of files that / can't tell say so with EINVAL.
bool isSynchronised(int descriptor) {
    return fsync(descriptor) == 0 || errno == EINVAL;
}

void synchronise(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY);
    const bool done = descriptor >= 0 && isSynchronised(descriptor);
    if (!done) fail(path, "could not be written");
    close(descriptor);
}

bool swapFolders([[maybe_unused]] const std::string& a, [[maybe_unused]] const std::string& b) {
#ifdef RENAME_EXCHANGE
    return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
#else
    return false;
#endif
}

void moveTo(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) fail(to, "could not be replaced");
}

std::string oldName(const std::string& place) {
    return place + ".old";
}

/// The path without links and without a stroke at its end, so that names beside it can be formed.
std::string resolved(const std::string& folder) {
    std::error_code error;
    fs::path path = fs::weakly_canonical(fs::absolute(folder), error);
    if (error) throw Failure(folder + ": " + error.message());
    if (path.filename().empty()) path = path.parent_path();
    return path.string();
}

} // namespace

std::string systemCause() {
    return errno != 0 ? std::string(": ") + std::strerror(errno) : "";
}

std::string readFile(const std::string& path) {
    errno = 0;
    const File file(std::fopen(path.c_str(), "rb"));
    if (!file) fail(path, "cannot be read");
    std::string contents;
    char block[1 << 14];
    for (std::size_t n = 0; (n = std::fread(block, 1, sizeof(block), file.get())) > 0;)
        contents.append(block, n);
    if (std::ferror(file.get()) != 0) fail(path, "cannot be read");
    return contents;
}

void writeFile(const std::string& path, const std::string& contents) {
    errno = 0;
    File file(std::fopen(path.c_str(), "wb"));
    if (!file || std::fwrite(contents.data(), 1, contents.size(), file.get()) != contents.size() ||
        std::fflush(file.get()) != 0 || !isSynchronised(fileno(file.get())) ||
        std::fclose(file.release()) != 0)
        fail(path, "could not be written");
}

void printOut(const std::string& text) {
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        fail("standard output", "could not be written");
}

void flushOutput() {
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        fail("standard output", "could not be written");
}

std::uint64_t checksum(const std::string& contents) {
    std::uint64_t sum = 0xcbf29ce484222325u;
    for (const char c : contents)
        sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3u;
    return sum;
}

NewFolder::NewFolder(const std::string& folder) : place(resolved(folder)) {
    std::error_code error;
    fs::create_directories(fs::path(place).parent_path(), error);
    for (int number = 0; aside.empty() && !error; ++number) {
        const std::string name =
            place + ".new-" + std::to_string(getpid()) + "-" + std::to_string(number);
        if (fs::create_directory(name, error)) aside = name; // false without an error: it is there
    }
    if (error) throw Failure(folder + ": could not be made: " + error.message());
}

NewFolder::~NewFolder() {
    std::error_code ignored;
    if (!aside.empty()) fs::remove_all(aside, ignored);
}

void NewFolder::putInPlace(bool atOnce) {
    for (const fs::directory_entry& entry : fs::directory_iterator(aside))
        synchronise(entry.path().string());
    synchronise(aside);
    std::error_code ignored;
    if (!fs::exists(place)) {
        moveTo(aside, place);
        aside.clear();
    } else if (!atOnce || !swapFolders(aside, place)) {
        fs::remove_all(oldName(place), ignored);
        moveTo(place, oldName(place));
        moveTo(aside, place);
        aside.clear();
    }
    if (!aside.empty()) fs::remove_all(aside, ignored); // the old one, after an exchange
    aside.clear();
    fs::remove_all(oldName(place), ignored);
}

std::string existingFolder(const std::string& folder) {
    const std::string place = resolved(folder);
    return !fs::exists(place) && fs::exists(oldName(place)) ? oldName(place) : folder;
}

} // namespace words
