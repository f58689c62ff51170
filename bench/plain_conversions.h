// Plain loops over samples and their conversions, as an application would write and compile them.
#pragma once

namespace plain {

unsigned sum(const unsigned* words, int n); // the words of an array at load speed
void clampToShorts(const float* src, short* dst, int n);
void toFloats(const short* src, float* dst, int n, float factor);
void preemphasize(float* vec, float alpha, int n);

// Linear prediction by autocorrelation and Durbin's recursion; r, e and a have order + 1 elements.
void predict(const float* src, int n, float* r, float* e, float* a, int order);
// gain / |A| at n frequencies; the table has rows of `order` pairs of cosine and negated sine, one row a
// frequency.
void spectrum(const float* table, int n, const float* coef, int order, float gain, float* spec);

} // namespace plain
