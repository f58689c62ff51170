// What every part of the program needs of the library: its reports as exceptions, and owners for
// what it hands out.
#pragma once

#include <ktlp6.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace words {

// / Something is wrong with a file, a label or an argument. The text is one line that names the
// file and the cause.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// / Lets the library keep its reports to itself: the program asks for them with lastReport() and
// words them its own way.
void quietLibrary();

/// The last report's text since quietLibrary() or forgetReports(), empty if there was none.
std::string lastReport();
void forgetReports();

/// Releases all that the library keeps for this thread.
void releaseLibrary();

template <auto release>
struct Releaser {
    template <class Record>
    void operator()(Record* record) const {
        release(record);
    }
};
using Filters = std::unique_ptr<KTMFCCFilters, Releaser<KTsFreeMFCCFilters>>;
using Mixture = std::unique_ptr<GaussMixServer, Releaser<KTsFreeGaussMixServer>>;
using Codebook = std::unique_ptr<KTCodebook, Releaser<KT_FreeCodebook>>;
using FloatNetwork = std::unique_ptr<sMLPServer, Releaser<KTsFreeMLPServer>>;
using FixedNetwork = std::unique_ptr<wMLPServer, Releaser<KTwFreeMLPServer>>;

/// A hidden Markov model is known by a number; this is the number's owner.
class Hmm {
public:
    Hmm() = default;
    explicit Hmm(int modelId) : id(modelId) {
        if (modelId < 0)
            throw Failure("the library could not make a hidden Markov model: " + lastReport());
    }
    Hmm(Hmm&& other) noexcept : id(std::exchange(other.id, 0)) {}
    Hmm& operator=(Hmm&& other) noexcept {
        std::swap(id, other.id);
        return *this;
    }
    ~Hmm() {
        if (id > 0) KTFreeHMMServer(id);
    }
    int get() const { return id; }

private:
    int id = 0;
};

/// A stream of the library's own files.
class Stream {
public:
    Stream(std::string path, const char* mode);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    operator FILE*() const { return file; }
    const std::string& path() const { return name; }

    // / Before a model its word, in a line of its own; reading compares, and a model of another
    // word is no model.
    void writeWord(const std::string& word) const;
    void expectWord(const std::string& word) const;

    /// Nothing is left to read.
    bool atEnd() const;
    /// Every record has been read or written: reports what is left to report and closes the file.
    void finish();
    /// The file does not hold what it should.
    [[noreturn]] void damaged(const char* what) const;

private:
    std::string name;
    FILE* file;
    bool writing;
};

} // namespace words
