/* vsq.h - the signal kernels under ktlP6: transforms and vector operations.
 *
 * The kernels are a static library of their own; the shared module keeps them to itself. Each function checks its
 * arguments in the order given and reports a refusal through vsqError, which under the layer's settings, that nothing
 * can change, ends the process with exit code 1 and no text. So a caller checks before it calls.
 *
 * In names: s float, w 16-bit, c complex float (real and imaginary part interleaved), b block; a digit is the number of
 * array operands. Arrays need no alignment beyond their element's. Unless said otherwise lengths count elements, and
 * source and destination are the same array or do not overlap.
 */
#ifndef VSQ_H
#define VSQ_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---- status and tables ------------------------------------------------------------------------------------- */

/* Status codes: those of ktlp6.h, KT_StsOk and below, with the same values. */

/* Report function: status, function's name, message, source module's name, line; returns the status. */
typedef int (*vsqErrorHandler)(int status, const char* funcName, const char* message, const char* sourceName, int line);

/* ---- vector operations: vsqarith, vsqaritw, vsqvec, vsqlnexp, vsqmisc ---------------------------------------- */

/* ---- conversions: vsqcvrts ----------------------------------------------------------------------------------- */

/* ---- norms, products, correlation: vsqnorm, vsqdotp, vsqdotpw, vsqcorr ---------------------------------------- */

/* ---- transforms: vsqffts, vsqfftw, vsqdct, vsqtwd ------------------------------------------------------------- */

#ifdef __cplusplus
}
#endif

#endif /* VSQ_H */
