#include "recogniser.h"

#include "library.h"

namespace words {

std::string flavourName(Flavour flavour) {
    return flavour == Flavour::real ? "float" : "fixed";
}

std::vector<std::unique_ptr<Recogniser>> makeRecognisers(const std::string& name) {
    std::vector<std::unique_ptr<Recogniser>> result;
    for (const auto make :
         {makeDtw, makeDiscrete, makeSemicontinuous, makeContinuous, makePerceptron}) {
        std::unique_ptr<Recogniser> recogniser = make();
        if (name.empty() || recogniser->name() == name) result.push_back(std::move(recogniser));
    }
    if (result.empty())
        throw Failure(
            name +
            ": no such recogniser; there are dtw, discrete, semicontinuous, continuous, mlp");
    return result;
}

} // namespace words
