/* vsq.h - the signal kernels under ktlP6: transforms and vector operations.
 *
 * The kernels are a static library of their own, libvsq; libktlp6, shared or static, keeps its
 * kernels to itself, with caches and a status of their own. Each function checks its arguments in
 * the order given and reports a refusal through vsqError. That ends the process with exit code 1
 * and no text, and nothing can change it. So a caller checks before it calls.
 *
 * In names: s float, w 16-bit, c complex float (real and imaginary part interleaved), b block; a
 * digit is the number of array operands. Arrays need no alignment beyond their element's. Unless
 * said otherwise lengths count elements, and source and destination are the same array or do not
 * overlap.
 */
#ifndef VSQ_H
#define VSQ_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- status and tables ---- */

/* The layer keeps one record for the whole process: a status, an error mode (0) and a report
 * handler (vsqNulDevReport). Status codes have the values and meanings of ktlp6.h (KT_StsOk and
 * below); the recognition layer's own status, KTGetStatus, never shows a kernel's failure. All
 * functions here may be called from any thread. */

/* Report function: status, function's name, message, source module's name, line; returns the
 * status. */
typedef int (*vsqErrorHandler)(int status, const char* funcName, const char* message,
                               const char* sourceName, int line);

/* Reports `status`: stores it, unless it is one of the trace markers -1 and -8; a status of 0 is
 * stored and returns 0 at once. Then calls the layer's handler, with all arguments as given
 * (texts may be null), and returns its result. As the layer stands, that call ends the process. */
int vsqError(int status, const char* funcName, const char* message, const char* sourceName,
             int line);

/* The layer's last status, 0 at first; reading does not clear it. */
int vsqGetStatus(void);

/* Stores a status, any value, without a report. */
void vsqSetStatus(int status);

/* The layer's error mode: 0, and there is no way to change it. */
int vsqGetErrMode(void);

/* The layer's handler: in error mode 0 ends the process with exit code 1 through exit(),
 * otherwise returns `status`. It writes no text. */
int vsqNulDevReport(int status, const char* funcName, const char* message, const char* sourceName,
                    int line);

/* The text of a status code, "Unknown error or status code" for a value that is none. A
 * constant; never null.
 */
const char* vsqErrorStr(int status);

/* Tables of the transforms, one for each order from 0 to 31, made at the first call and kept by
 * the layer, which releases them when its caches are released. Null after a report: status -5
 * "order<0", "order>31"; -4 "NULL Pointer" when memory ran out; and null, without a report,
 * while the layer's status is negative.
 *
 * vsqGetBitRevTbl: 2^order ints, entry i is i with its `order` bits reversed. vsqcGetFftTwdTbl:
 * room for 2^order complex floats (real, imaginary); entry k is (cos(2 pi k / 2^order), -sin(2
 * pi k / 2^order)) for k below 2^(order-1). */
const int* vsqGetBitRevTbl(int order);
const float* vsqcGetFftTwdTbl(int order);

/* Fill a table of the caller's, of the length and content above. Refused: "order<0", "order>31",
 * "tbl==0". */
void vsqCalcBitRevTbl(int* tbl, int order);
void vsqcCalcFftTwdTbl(float* tbl, int order);

/* ---- vector operations: vsqvec, vsqarith, vsqaritw, vsqlnexp, vsqmisc ---- */

/* Every function of this section needs a length of 1 or more and no null pointer; it refuses
 * others with status -5 and the text named there (the checks run in the order of the texts),
 * which ends the process. Where src and dst are named, they are the same array or do not
 * overlap. Float results are the same bits on every processor. */

/* dst[i] = 0. Refused: "n<=0", "dst==0". */
void vsqsbZero(float* dst, int n);
void vsqwbZero(short* dst, int n);

/* dst[i] = val. Refused: "n<=0", "dst==0". */
void vsqsbSet(float val, float* dst, int n);
void vsqwbSet(short val, short* dst, int n);

/* dst[i] = src[i]. Refused: "n<=0", "src==0", "dst==0". Arrays that overlap are copied as if
 * through a third one. */
void vsqsbCopy(const float* src, float* dst, int n);
void vsqwbCopy(const short* src, short* dst, int n);

/* dst[i] *= val. Refused: "n<=0", "dst==0". */
void vsqsbMpy1(float val, float* dst, int n);

/* dst[i] *= src[i]. Refused: "n<=0", "src==0", "dst==0". */
void vsqsbMpy2(const float* src, float* dst, int n);

/* vec[i] = natural logarithm of vec[i], within 2 units in the last place. 0 and -0 give minus
 * infinity (and are not refused), negative values and NaN give NaN, infinity gives infinity.
 * Refused: "len<=0", "vec==0". */
void vsqsbLn1(float* vec, int len);

/* vec[i] = e to the power vec[i], within 2 units in the last place; above 88.7228... infinity,
 * below -103.97 0, and between that and -87.34 the denormal results. NaN stays NaN.
 * Refused: "len<=0", "vec==0". */
void vsqsbExp1(float* vec, int len);

/* dst[i] = square root of src[i], correctly rounded. A negative element leaves its dst[i] as it
 * was, and when all elements are done the call is refused with "Element of input vector is
 * negative". Runs with the floating-point exceptions masked, and restores the caller's masks.
 * Refused: "len<=0", "src==0", "dst==0".
 */
void vsqsbSqrt2(const float* src, float* dst, int len);

/* The same operation under the name of the block search, which works in place. */
void vsqsbSqrt1(const float* src, float* dst, int len);

/* relOp 0: every value below thresh becomes thresh; any other relOp: every value above it. The
 * bit patterns are compared: -0 lies below 0, NaN outermost on the side of its sign bit; and with a
 * negative thresh only negative elements are ever replaced, so that relOp 1 then lets positive
 * values stand. Refused: "len<=0", "vec==0". */
void vsqsbThresh1(float* vec, int len, float thresh, int relOp);

/* vec[i] = 1 / vec[i], elements of magnitude below thresh counting as thresh with the element's
 * sign. With thresh 0 a zero element stays as it is and, when all elements are done, the call is
 * refused with "zero element and zero thresh". Runs with the floating-point exceptions masked,
 * and restores the caller's masks. Refused: "len<=0", "vec==0", "thresh<0.0f". */
void vsqsbInvThresh1(float* vec, int len, float thresh);

/* mag[i] = square root of re*re + im*im, all in float (so squares above the largest float give
 * infinity), src holding `length` pairs re, im. mag may be src. Refused: "length<=0", "mag==0",
 * "src==0". */
void vsqcbMag(const float* src, float* mag, int length);

/* spectr[i] = re*re + im*im in float, src holding `length` pairs re, im. spectr may be src.
 * Refused: "length<=0", "spectr==0", "src==0". */
void vsqcbPowerSpectr(const float* src, float* spectr, int length);

/* ---- conversions: vsqcvrts ---- */

/* Flags of the conversions, to be combined. Without a rounding flag values go to the nearest
 * integer, halves to the even one; VSQ_RoundToZero is stronger than VSQ_RoundDown. */
#define VSQ_Saturate 0x80      /* what does not fit becomes the nearer end of the range */
#define VSQ_RoundToZero 0x1000 /* the fraction is dropped */
#define VSQ_RoundDown 0x2000   /* toward minus infinity */

/* dst[i] = src[i] as a signed integer of wordSize bits, 8, 16 or 32. After rounding, a value
 * that does not fit becomes the most negative integer, or with VSQ_Saturate the nearer end of
 * the range; NaN always the most negative one. dst holds len words and may be src.
 * Refused, status -5: "len<=0", "src==0", "dst==0", "flags is wrong" (any bit but those above),
 * "wordSize is wrong". */
void vsqsbFloatToInt(const float* src, void* dst, int len, int wordSize, int flags);

/* dst[i] = src[i], a signed integer of wordSize bits, 8, 16 or 32, rounded to the nearest float.
 * The flags change nothing. dst may be src. Refused as above. */
void vsqsbIntToFloat(const void* src, float* dst, int len, int wordSize, int flags);

/* ---- norms, products, correlation: vsqnorm, vsqdotp, vsqdotpw, vsqcorr ---- */

/* Scale modes of the kernels' fixed-point results; 0 and 1: no scale. A result is stored *
 * 2^scale. */
#define VSQ_FIXED_SCALE 2 /* by the factor given */
#define VSQ_AUTO_SCALE 4  /* the kernel chooses the factor and tells it */

/* The sum of a[i] * b[i] over n elements, products and sums in double, and the same bits on
 * every processor. n of 0 gives 0. Refused, status -5: "a==0", "b==0", "n<0"; the result is then
 * 0. */
double vsqsDotProd(const float* a, const float* b, int n);

/* The sum of a[i] * b[i] over n elements in a 32-bit integer, which wraps silently. scaleMode
 * VSQ_FIXED_SCALE shifts it right by *scaleFactor, arithmetically, or left by -*scaleFactor if
 * that is negative, bits beyond the word lost (a null scaleFactor counts as 0). VSQ_AUTO_SCALE
 * sets *scaleFactor to 0; any other mode does nothing more. Refused, status -5: "a==0", "b==0",
 * "n<0", "scaleMode & VSQ_AUTO_SCALE && scaleFactor==NULL"; the result is then 0. */
int vsqwDotProdExt(const short* a, const short* b, int n, int scaleMode, int* scaleFactor);

/* Norms: exactly one of the first four; VSQ_NormRelative may stand beside it. */
#define VSQ_NormMax 0x01      /* largest absolute value; NaN is passed over */
#define VSQ_NormSum 0x02      /* sum of absolute values */
#define VSQ_NormRoot 0x04     /* square root of the sum of squares */
#define VSQ_NormRelative 0x08 /* the norm of a - b divided by the norm of a */
#define VSQ_NormSquares 0x10  /* sum of squares */

/* A norm of a, or of a - b where b is not null, over n elements; differences, squares and sums
 * in double, the same bits on every processor. With VSQ_NormRelative: 1 if b is null; 0 if the
 * norm of the difference is below the smallest normal float; otherwise the largest float if the
 * norm of a is below that; otherwise the quotient. With VSQ_NormRoot these two tests see the
 * sums of squares, and the root is taken of the quotient. Refused, status -5: "n<=0", "srcA==0",
 * "flag is wrong"; the result is then 0. */
double vsqsNorm(const float* a, const float* b, int n, int flags);

/* The same norms of 16-bit elements, as integers. Differences and sums are exact (17 and 64
 * bits); a root or a quotient is truncated to an integer; a result above 0x7FFFFFFF becomes
 * 0x7FFFFFFF. With VSQ_NormRelative: 1 if b is null; 0 if the norm of the difference is 0;
 * otherwise 0x7FFFFFFF if the norm of a is 0; otherwise the truncated quotient (with
 * VSQ_NormRoot: the truncated root of the exact quotient). Refused as vsqsNorm; the result is
 * then 0. */
int vsqwNorm(const short* a, const short* b, int n, int flags);

/* vsqwNorm with a scale. VSQ_FIXED_SCALE: the exact integer norm is shifted right by
 * *scaleFactor, or left by -*scaleFactor if that is negative, before it saturates; a quotient
 * (also the 1 for a null b) is scaled before it is truncated. VSQ_AUTO_SCALE: *scaleFactor is
 * set to the smallest right shift, 0 or more, under which the norm fits, and the norm shifted by
 * it. Refused, status -5, after the checks of vsqwNorm: "scaleMode & VSQ_FIXED_SCALE &&
 * scaleMode & VSQ_AUTO_SCALE", "scaleMode & VSQ_FIXED_SCALE && (scaleFactor==NULL)", "scaleMode
 * & VSQ_AUTO_SCALE && scaleFactor==NULL"; the result is then 0. */
int vsqwNormExt(const short* a, const short* b, int n, int flags, int scaleMode, int* scaleFactor);

/* Autocorrelation: dst[k] is the sum of src[i] * src[i + k] for k from 0 to nLags - 1, in
 * double, rounded once. type 0: as it stands; 1: divided by n; 2: divided by n - k. dst must not
 * overlap src. Refused, status -5: "Null SRC buffer pointer", "Null DST buffer pointer",
 * "Invalid SRC buffer length" (n below 1), "Invalid LAG value" (nLags below 1 or above n),
 * "Invalid auto-corr type". */
void vsqsAutoCorr(const float* src, int n, float* dst, int nLags, int type);

/* ---- transforms: vsqffts, vsqfftw, vsqdct, vsqtwd ---- */

/* The real transforms and their tables may run on several threads at once: a table is made by
 * the first call that needs it and then only read. Only a release asks for care: call it while
 * no other thread runs a transform. */

/* Flags of the transforms. Exactly one of VSQ_Forw and VSQ_Inv, and exactly one of VSQ_RCPack and
 * VSQ_RCPerm, which say how the spectrum is packed into N values:
 *   VSQ_RCPack   X[0], re X[1], im X[1], ..., re X[N/2 - 1], im X[N/2 - 1], X[N/2]
 *   VSQ_RCPerm   X[0], X[N/2], re X[1], im X[1], ..., re X[N/2 - 1], im X[N/2 - 1]
 * VSQ_RoundMode0 and VSQ_RoundMode1 are for vsqwRealFftl only, and not both; results are truncated
 * whichever is set. */
#define VSQ_Forw 0x001 /* time to spectrum: X[k] = sum of x[n] exp(-2 pi i k n / N), not scaled */
#define VSQ_Inv 0x002  /* spectrum to time, multiplied by 1 / N */
#define VSQ_Init 0x004 /* only prepare the tables for this order */
#define VSQ_Free 0x008 /* only release the tables for this order */
#define VSQ_NoScale 0x010 /* VSQ_Inv without the factor 1 / N */
#define VSQ_RCPack 0x100
#define VSQ_RCPerm 0x200
#define VSQ_RoundMode0 0x2000
#define VSQ_RoundMode1 0x4000

/* The transform of N = 2^order reals, in place or from inSamps to outSamps (which may be the
 * same array; otherwise inSamps is left as it was). The spectrum, input of VSQ_Inv and output of
 * VSQ_Forw, is packed into N floats. Relative root mean square error at most 1.5e-7 *
 * sqrt(order); the same bits on every processor. VSQ_Free comes before everything else and needs
 * nothing but the order; then the order is checked, then the tables are made; VSQ_Init returns
 * here and needs no pointers. Refused, status -5, in this order: "order<0", "order>31",
 * "samps==0" or "inSamps==0", "outSamps==0", "(flags & 1) && (flags & 2)", "(flags & 1)==0 &&
 * (flags & 2)==0", "(flags & 256) && (flags & 512)", "(flags & 256)==0 && (flags & 512)==0".
 * When memory for tables or scratch runs out, all cached tables are released and the request is
 * made once more; then -4 "No working Twd memory". Method: a complex transform of N/2 points and
 * a split step; J. W. Cooley, P. A. W. Lewis, P. D. Welch, "The Fast Fourier Transform
 * Algorithm: Programming Considerations in the Calculation of Sine, Cosine and Laplace
 * Transforms", 1970; the radix passes sort as they go, after T. G. Stockham (in W. T. Cochran
 * et al., "What is the Fast Fourier Transform?", 1967). */
void vsqsRealFftl(float* samps, int order, int flags);
void vsqsRealFftlNip(const float* inSamps, float* outSamps, int order, int flags);

/* The same in place on 16-bit values, the transform itself in float. Results are brought to 16
 * bits at the end: scaleMode 0 or 1: as they stand; VSQ_FIXED_SCALE: multiplied by
 * 2^-*scaleFactor (a null scaleFactor counts as 0); VSQ_AUTO_SCALE: multiplied by 2^-s for the
 * smallest s, 0 or more, under which none saturates, and *scaleFactor = s. Each is truncated
 * toward zero and saturates at -32768 and 32767; nothing wraps. Order 0 and 1 work in integers
 * of 32 bits, and VSQ_Inv shifts both sums of order 1 right by one, arithmetically, unless
 * VSQ_NoScale is set. VSQ_Free also releases the float copy of the samples that is kept between
 * calls. Refused, status -5, in this order: "order<0", "order>31", "(flags & 8192) && (flags &
 * 16384)"; then, without VSQ_Init, "samps==0", the four flag texts above, "(scaleMode & 0x0002)
 * && (scaleMode & 0x0004)", "scaleFactor==0" (with VSQ_AUTO_SCALE). -4 "No working memory" when
 * memory ran out twice. If the float transform failed: -1 "out vsqsRealFftl VSQ_Init" or "out
 * vsqsRealFftl calc. FFT". */
void vsqwRealFftl(short* samps, int order, int flags, int scaleMode, int* scaleFactor);

/* Release what the layer caches: the tables of vsqGetBitRevTbl and vsqcGetFftTwdTbl of all
 * orders (pointers to them are then invalid); the working tables and the scratch of the float
 * transforms; the float samples of the fixed-point transform. The next call that needs them
 * makes them again. */
void vsqFreeFftTbls(void);
void vsqsFreeRealFftTbls(void);
void vsqwFreeRealFftTbls(void);

/* Flags of the discrete cosine transform: one of the first two, or VSQ_DctFree alone. */
#define VSQ_DctForw 1
#define VSQ_DctInv 2
#define VSQ_DctFree 8

/* The orthonormal DCT-II of n values (VSQ_DctForw), y[0] = sqrt(1/n) * sum of x[j] and y[k] =
 * sqrt(2/n) * sum of x[j] cos(pi k (2j + 1) / (2n)), or its inverse (VSQ_DctInv). Any n; pSrc
 * and pDst may be the same array. Powers of two from 128 on take an FFT, other lengths n * n / 2
 * multiplications by cosines that are kept for this n. The same bits on every processor. With
 * flags equal to VSQ_DctFree all cached tables of both functions are released (while no other
 * thread runs one), and the other arguments are ignored. Refused: "\nNull pointer to data
 * buffer\n", "\nBad value of data buffer size\n" (n below 1), "\nBad value of the transform
 * flag\n", status -5; "\nMemory allocation problem\n", status -4. */
void vsqsDct(const float* pSrc, float* pDst, int n, int flags);

/* The same on 16-bit values: computed in float from the integers, truncated toward zero,
 * saturated to 16 bits; nothing wraps. */
void vsqwDct(const short* pSrc, short* pDst, int n, int flags);

#ifdef __cplusplus
}
#endif

#endif /* VSQ_H */
