// Inner products and norms of floats with double sums; the plain loops sum in float.
#include "bench/kernels/plain_vectors.h"
#include "bench/support/bench.h"
#include "vsq.h"

#ifdef KTL_HAVE_OPENBLAS
#include <cblas.h>
#endif

#include <string>

namespace {

constexpr int longest = 4096;

struct Arrays {
    alignas(64) float first[longest], second[longest];
    short firstWords[longest], secondWords[longest];
    Arrays() {
        for (int i = 0; i < longest; ++i) {
            first[i] = float(i % 77) * 0.3f - 7;
            second[i] = float(i % 91) * 0.2f - 8;
            firstWords[i] = short(i * 77);
            secondWords[i] = short(i * 91);
        }
    }
};

template <class Function>
struct Side {
    Function function;
    int n;
    double result = 0;
    Arrays arrays{};
    Side(Function f, int count) : function(f), n(count) {}
    void run() { benchmark::DoNotOptimize(result = double(function(arrays, n))); }
    bench::Values results() const { return {result}; }
};

template <class Function>
auto make(int n, Function function) {
    return [=] { return Side(function, n); };
}

void addProducts(int n) {
    bench::Row row("dotProd/" + std::to_string(n), make(n, [](const Arrays& a, int count) {
                       return vsqsDotProd(a.first, a.second, count);
                   }));
#ifdef KTL_HAVE_OPENBLAS
    row.peer("openblas", 1e-5, make(n, [](const Arrays& a, int count) {
                 return cblas_dsdot(count, a.first, 1, a.second, 1);
             }));
#endif
    row.peer("plain", 1e-4, make(n, [](const Arrays& a, int count) {
                 return plain::dot(a.first, a.second, count);
             }));
}

void addNorms(int n) {
    const std::string size = std::to_string(n);
    bench::Row("norm/" + size, make(n,
                                    [](const Arrays& a, int count) {
                                        return vsqsNorm(a.first, a.second, count, VSQ_NormSquares);
                                    }))
        .peer("plain", 1e-5, make(n, [](const Arrays& a, int count) {
                  return plain::squaredDistance(a.first, a.second, count);
              }));
    bench::Row("fixedNorm/" + size, make(n, [](const Arrays& a, int count) {
                   return vsqwNorm(a.firstWords, a.secondWords, count, VSQ_NormRoot);
               }));
    bench::Row("fixedDotProd/" + size, make(n, [](const Arrays& a, int count) {
                   return vsqwDotProdExt(a.firstWords, a.secondWords, count, 0, nullptr);
               }));
}

const int registered = [] {
    for (const int n : {400, 4096})
        addProducts(n);
    for (const int n : {13, 39, 400})
        addNorms(n);
    return 0;
}();

} // namespace
