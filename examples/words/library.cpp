#include "library.h"

#include "files.h"

#include <cerrno>
#include <cstring>

namespace words {
namespace {

thread_local std::string report;

int remember(int status, const char*, const char* message, const char*, int) {
    // Of a chain of reports the first one names the cause; the others say through whom it came.
    if (report.empty())
        report = message != nullptr && *message != '\0' ? message : KTErrorStr(status);
    return status;
}

} // namespace

void quietLibrary() {
    KTRedirectError(remember);
    KTSetErrMode(KT_ErrorModeParent);
    forgetReports();
}

std::string lastReport() {
    return report;
}

void forgetReports() {
    report.clear();
    KTSetStatus(
        // several functions refuse to work on a thread whose status tells of an old failure
        KT_StsOk);
}

void releaseLibrary() {
    KTHMMFreeAll();
    KTsPatternFreeAll();
    KTwPatternFreeAll();
    KTFreeGaussTbls();
    KTFreeCepsTbls();
    KTFreePreemphasizeTbls();
}

Stream::Stream(std::string path, const char* mode)
    : name(std::move(path)), file(KTOpenFile(name.c_str(), mode)), writing(mode[0] == 'w') {
    if (file == nullptr) throw Failure(name + ": " + std::strerror(errno));
}

Stream::~Stream() {
    if (file != nullptr) KTCloseFile(file);
}

void Stream::writeWord(const std::string& word) const {
    std::fprintf(file, "word %s\n", word.c_str());
}

void Stream::expectWord(const std::string& word) const {
    const std::string wanted = "word " + word + "\n";
    std::string found;
    for (int c = 0; found.size() < wanted.size() && (c = std::fgetc(file)) != EOF;)
        found += static_cast<char>(c);
    if (found != wanted) damaged(("model of the word '" + word + "'").c_str());
}

bool Stream::atEnd() const {
    const int next = std::fgetc(file);
    if (next != EOF) std::ungetc(next, file);
    return next == EOF;
}

void Stream::finish() {
    const bool more = !writing && !atEnd();
    bool broken = std::ferror(file) != 0;
    if (writing) {
        std::clearerr(file); // whatever failed before, the cause of it is told once more
        errno = 0;
        if (broken) std::fputc(0, file);
        broken = std::fflush(file) != 0 || broken;
    }
    const std::string cause = broken ? systemCause() : "";
    broken = KTCloseFile(std::exchange(file, nullptr)) != 0 || broken;
    if (broken)
        throw Failure(name + (writing ? ": could not be written" : ": could not be read") + cause);
    if (more) throw Failure(name + ": damaged, there is more in it than models");
}

void Stream::damaged(const char* what) const {
    throw Failure(name + ": damaged, no " + what + " where one should be" +
                  (report.empty() ? "" : " (" + report + ")"));
}

} // namespace words
