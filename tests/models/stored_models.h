// Hidden Markov models as the tests hold them, the calls that make servers of them, and what a
// server of one has to store, written down order by order without any arithmetic on positions.
#pragma once

#include "mixtures/mixtures.h"
#include "models/model.h"
#include "models/models.h"

#include <cfloat>
#include <cstdint>
#include <random>
#include <type_traits>
#include <vector>

namespace models {

using mixtures::Server;

enum class OutputKind { discrete, continuous, semicontinuous };

inline constexpr OutputKind allKinds[] = {OutputKind::discrete, OutputKind::continuous,
                                          OutputKind::semicontinuous};

// The least that matrices of few states are stored as: one state is full, two upper triangular,
// three banded.
inline Shape storedShape(Shape wanted, int n) {
    if (n == 1 || wanted == Shape::full) return Shape::full;
    if (n == 2) return Shape::triangular;
    return n == 3 ? Shape::banded : wanted;
}

inline unsigned shapeBits(Shape shape) {
    return shape == Shape::banded ? 0x2000u : shape == Shape::triangular ? 0x1000u : 0u;
}

// A model of any output kind and domain; a continuous one has no symbols and outputs.
template <class T>
struct KindModel : Model<T> {
    OutputKind kind = OutputKind::discrete;
    int nQuant = 0, scale = 0;
    unsigned domain = 0; // 1: costs, 2: probabilities, 0 (fixed point): neither
    std::vector<Server> mixtures;

    bool costs() const { return domain == 1; }
    unsigned status() const {
        const unsigned kindBits = kind == OutputKind::discrete     ? 0x800000u
                                  : kind == OutputKind::continuous ? 0x40400000u
                                                                   : 0x200000u;
        return kindBits | (Model<T>::isFloat ? 0x20u : 0x10u) | domain | shapeBits(this->shape);
    }

    // A server of it; the thread's codebook has to be there for a semicontinuous one.
    int create() const {
        const int flags = int(domain);
        if (kind == OutputKind::discrete) return this->discrete(flags);
        if (kind == OutputKind::semicontinuous) return this->semicont(nQuant, flags, scale);
        std::vector<GaussMixServer*> servers;
        for (const Server& server : mixtures)
            servers.push_back(server.get());
        return this->continuous(servers.data(), nQuant, flags, scale);
    }
};

// Fixed mixtures for any use: small integers.
inline mixtures::Mixture<short> randomFixedMixture(std::mt19937& random, int nDim, int nMix,
                                                   bool full) {
    const auto draw = [&](int low, int high) {
        return short(std::uniform_int_distribution<int>(low, high)(random));
    };
    mixtures::Mixture<short> m;
    m.nDim = nDim;
    m.nMix = nMix;
    const auto row = [&] {
        std::vector<short> values(static_cast<std::size_t>(nDim));
        for (short& v : values)
            v = draw(1, 100);
        return values;
    };
    for (int k = 0; k < nMix; ++k) {
        m.weights.push_back(draw(1, 16384));
        m.means.push_back(row());
        if (full)
            m.matrices.emplace_back(std::size_t(nDim), row());
        else
            m.diagonals.push_back(row());
    }
    return m;
}

template <class T>
Server randomMixture(std::mt19937& random, int nDim, int nMix, bool full, int flags = 0) {
    if constexpr (std::is_same_v<T, float>)
        return mixtures::randomMixture(random, nDim, nMix, full).server(flags);
    else
        return randomFixedMixture(random, nDim, nMix, full).server(flags, -7);
}

// The thread's codebook, filled for as long as this lives.
template <class T>
struct Codebook {
    Codebook(std::mt19937& random, int nSymbols, int nQuant, bool full = false) {
        std::vector<Server> owned;
        std::vector<GaussMixServer*> servers;
        for (int k = 0; k < nSymbols; ++k) {
            owned.push_back(randomMixture<T>(random, nQuant, 1, full));
            servers.push_back(owned.back().get());
        }
        if constexpr (std::is_same_v<T, float>)
            made = KTsInitSemicontCodebook(servers.data(), nSymbols, nQuant, 0) == 1;
        else
            made = KTwInitSemicontCodebook(servers.data(), nSymbols, nQuant, 0) == 1;
    }
    ~Codebook() {
        if constexpr (std::is_same_v<T, float>)
            KTsFreeSemicontCodebook();
        else
            KTwFreeSemicontCodebook();
    }
    Codebook(const Codebook&) = delete;
    Codebook& operator=(const Codebook&) = delete;

    bool made;
};

// What a caller puts where there is no transition.
template <class T>
T absentInput(unsigned domain) {
    if constexpr (std::is_same_v<T, float>)
        return domain == 1 ? 35.0f : 0.0f;
    else
        return domain == 1 ? 0x7FFF : 0;
}

// A value that counts as present everywhere.
template <class T>
T presentInput(std::mt19937& random, unsigned domain) {
    if constexpr (std::is_same_v<T, float>)
        return std::uniform_real_distribution<float>(0.01f, domain == 1 ? 20.0f : 1.0f)(random);
    else
        return short(std::uniform_int_distribution<int>(1, 20000)(random));
}

template <class T>
KindModel<T> randomModel(std::mt19937& random, OutputKind kind, Shape wanted, int n,
                         unsigned domain, int nSymbols, int nQuant) {
    KindModel<T> m;
    m.kind = kind;
    m.shape = storedShape(wanted, n);
    m.n = n;
    m.domain = domain;
    const auto states = static_cast<std::size_t>(n);
    m.trans.assign(states, std::vector<T>(states, absentInput<T>(domain)));
    for (int i = 0; i < n; ++i) {
        m.initial.push_back(presentInput<T>(random, domain));
        for (int j = 0; j < n; ++j)
            if (allows(m.shape, i, j))
                m.trans[std::size_t(i)][std::size_t(j)] = presentInput<T>(random, domain);
    }
    if (kind != OutputKind::discrete) m.nQuant = nQuant;
    if (kind != OutputKind::discrete && !Model<T>::isFloat) m.scale = -8;
    if (kind == OutputKind::continuous) {
        m.m = 0; // what a fresh record holds
        for (int i = 0; i < n; ++i)
            m.mixtures.push_back(randomMixture<T>(random, nQuant, 1 + i % 3, i % 2 == 1));
        return m;
    }
    m.m = nSymbols;
    for (int i = 0; i < n; ++i) {
        m.out.emplace_back();
        for (int k = 0; k < nSymbols; ++k)
            m.out.back().push_back(presentInput<T>(random, domain));
    }
    return m;
}

// --- what a server has to store, in order ---

template <class T>
using Word = std::conditional_t<std::is_same_v<T, float>, float, std::int32_t>;

template <class T>
Word<T> widened(T value, unsigned domain) {
    if constexpr (!std::is_same_v<T, float>)
        if (domain == 1) return widened(value);
    return value;
}

// Paddings of vectors and rows over the states, and of fixed transition rows.
template <class T>
Word<T> vectorPad(unsigned domain) {
    if constexpr (std::is_same_v<T, float>)
        return FLT_MAX;
    else
        return domain == 1 ? 0x1FFFFF : 0;
}
inline std::int32_t transitionPad(unsigned domain) {
    return domain == 1 ? 0x1FFFFFFF : 0;
}

template <class T>
void padTo(std::vector<T>& values, int multiple, T filler) {
    while (values.size() % std::size_t(multiple) != 0)
        values.push_back(filler);
}

template <class T>
std::vector<Word<T>> storedInitials(const KindModel<T>& m) {
    std::vector<Word<T>> values;
    for (const T v : m.initial)
        values.push_back(widened(v, m.domain));
    padTo(values, Model<T>::isFloat ? 4 : 2, vectorPad<T>(m.domain));
    return values;
}

inline std::vector<float> storedByDiagonals(const KindModel<float>& m) {
    std::vector<float> values;
    for (int distance = 0; distance < 3; ++distance)
        for (int i = 0; i + distance < m.n; ++i)
            values.push_back(m.trans[std::size_t(i)][std::size_t(i + distance)]);
    values.push_back(m.trans.back().back());
    return values;
}

inline std::vector<float> storedTransitions(const KindModel<float>& m) {
    if (m.costs() && m.shape == Shape::banded) return storedByDiagonals(m);
    std::vector<float> values;
    if (m.costs()) {
        for (int j = m.n - 1; j >= 0; --j)
            for (int i = 0; i < m.n; ++i)
                if (allows(m.shape, i, j))
                    values.push_back(m.trans[std::size_t(i)][std::size_t(j)]);
        return values;
    }
    for (int i = 0; i < m.n; ++i)
        for (int j = 0; j < m.n; ++j)
            if (allows(m.shape, i, j)) values.push_back(m.trans[std::size_t(i)][std::size_t(j)]);
    if (m.shape == Shape::banded) values.push_back(m.trans.back().back());
    return values;
}

// Fixed rows by target; `element` gives what stands for a transition, `pad` and `missing` fill the
// rest.
template <class T, class Element>
std::vector<std::int32_t> fixedByTarget(const KindModel<T>& m, std::int32_t pad,
                                        std::int32_t missing, Element element) {
    std::vector<std::int32_t> values;
    if (m.shape == Shape::banded) {
        for (int distance = 0; distance < 3; ++distance) {
            for (int j = 0; j < m.n; ++j)
                values.push_back(j < distance
                                     ? missing
                                     : element(m.trans[std::size_t(j - distance)][std::size_t(j)]));
            padTo(values, 2, pad);
        }
        return values;
    }
    for (int j = m.n - 1; j >= 0; --j) {
        for (int i = 0; i < m.n; ++i)
            if (allows(m.shape, i, j))
                values.push_back(element(m.trans[std::size_t(i)][std::size_t(j)]));
        padTo(values, 2, pad);
    }
    return values;
}

inline std::vector<std::int32_t> storedTransitions(const KindModel<short>& m) {
    return fixedByTarget(m, transitionPad(m.domain), m.costs() ? 0x1FFFFF : 0,
                         [&](short v) { return widened(v, m.domain); });
}

// Rows per symbol.
template <class T>
std::vector<Word<T>> storedDiscrete(const KindModel<T>& m) {
    std::vector<Word<T>> values;
    for (int k = 0; k < m.m; ++k) {
        for (int i = 0; i < m.n; ++i)
            values.push_back(widened(m.out[std::size_t(i)][std::size_t(k)], m.domain));
        padTo(values, Model<T>::isFloat ? 4 : 2, vectorPad<T>(m.domain));
    }
    return values;
}

template <class T>
std::vector<T> storedWeights(const KindModel<T>& m) {
    std::vector<T> values;
    for (const auto& row : m.out) {
        values.insert(values.end(), row.begin(), row.end());
        padTo(values, 4, T(0));
    }
    return values;
}

// --- a server's parameters as the query gives them ---

template <class T>
struct Answer {
    int result;
    std::vector<T> initial;
    Rows<T> trans, out;
};

template <class T>
Answer<T> query(int id, int n, int nSymbols, OutputKind kind) {
    const auto states = static_cast<std::size_t>(n), symbols = static_cast<std::size_t>(nSymbols);
    Answer<T> a{0, std::vector<T>(states), Rows<T>(states, std::vector<T>(states)),
                Rows<T>(states, std::vector<T>(symbols))};
    std::vector<void*> trans, out;
    for (std::size_t i = 0; i < states; ++i) {
        trans.push_back(a.trans[i].data());
        out.push_back(a.out[i].data());
    }
    a.result = KTGetHMMProb(id, a.initial.data(), trans.data(),
                            kind == OutputKind::discrete ? out.data() : nullptr,
                            kind == OutputKind::semicontinuous ? out.data() : nullptr, nullptr);
    return a;
}

// Status and counts of a server.
struct Parameters {
    int result, nStates, nSymbols, nQuant, scale, status;
};
inline Parameters parametersOf(int id) {
    Parameters p{};
    p.result = KTGetHMMParm(id, &p.nStates, &p.nSymbols, &p.nQuant, &p.scale, &p.status);
    return p;
}

} // namespace models
