#include "hmmset.h"

#include <numeric>

namespace words {

Topology::Topology(int nStates)
    : initial(static_cast<std::size_t>(nStates)), transitions(nStates, nStates) {
    initial[0] = 1.0f;
    for (int i = 0; i < nStates; ++i) {
        const float next = i + 1 < nStates ? 0.4f : 0.0f;
        const float skip = i + 2 < nStates ? 0.1f : 0.0f;
        transitions.row(i)[i] = 1.0f - next - skip;
        if (i + 1 < nStates) transitions.row(i)[i + 1] = next;
        if (i + 2 < nStates) transitions.row(i)[i + 2] = skip;
    }
}

void smooth(Matrix<float>& probabilities, float floor) {
    const int n = probabilities.columns();
    for (int i = 0; i < probabilities.rows(); ++i) {
        float* row = probabilities.row(i);
        const float sum = std::accumulate(row, row + n, 0.0f);
        for (int k = 0; k < n; ++k) // a state without frames: all the same
            row[k] = ((sum > 0.0f ? row[k] / sum : 1.0f / static_cast<float>(n)) + floor) /
                     (1.0f + floor * static_cast<float>(n));
    }
}

Sequences<const float*> framesOf(const TrainingSet& training, int word) {
    Sequences<const float*> result;
    for (const Utterance& utterance : training.utterances)
        if (utterance.word == word) result.add(utterance.real.pointers());
    return result;
}

void HmmSet::clear() {
    if (classId > 0) KTDeleteHMMClass(classId);
    classId = 0;
    models.clear();
}

void HmmSet::add(Hmm model) {
    if (classId == 0) classId = KTCreateHMMClass();
    if (KTAddHMMToClass(classId, model.get()) < 0)
        throw Failure("a model could not be put into its class: " + lastReport());
    models.push_back(std::move(model));
}

int HmmSet::wordOf(int id) const {
    for (std::size_t word = 0; word < models.size(); ++word)
        if (models[word].get() == id) return static_cast<int>(word);
    return -1;
}

void HmmSet::save(const std::string& path, const std::vector<std::string>& words) const {
    Stream file(path, "wb");
    for (std::size_t word = 0; word < models.size(); ++word) {
        file.writeWord(words[word]);
        KTWriteHMMServer(file, models[word].get(), nullptr);
    }
    file.finish();
}

void HmmSet::load(const std::string& path, const std::vector<std::string>& words, int nSymbols,
                  int nDimensions, unsigned statusBits) {
    clear();
    Stream file(path, "rb");
    for (const std::string& word : words) {
        file.expectWord(word);
        const int id = KTReadHMMServer(file, nullptr);
        if (id < 0) file.damaged("hidden Markov model");
        Hmm model(id);
        int symbols = 0, dimensions = 0, status = 0;
        KTGetHMMParm(id, nullptr, &symbols, &dimensions, nullptr, &status);
        if ((static_cast<unsigned>(status) & statusBits) != statusBits ||
            (nSymbols > 0 && symbols != nSymbols) || (nDimensions > 0 && dimensions != nDimensions))
            file.damaged("model of this kind and size");
        add(std::move(model));
    }
    file.finish();
}

} // namespace words
