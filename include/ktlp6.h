/* ktlp6.h - ktlP6, building blocks for speech recognition, in 32-bit float and 16-bit fixed point.
 *
 * Names. KT, then the type of the data (s float, w 16-bit fixed point, d double, i 32-bit integer,
 * sw and ws conversions between two types, a further b for a block), then verb and object.
 * Functions without a type serve both numeric forms, float and fixed. "KT?Name" below stands for
 * KTsName and KTwName.
 *
 * Parameters. Each is explained in a table, in the comment above its function or in an earlier one
 * of the same section: what is said there for one function holds for the others of the section.
 *
 * Fixed point. An array of 16-bit values shares one power-of-two scale s: an element v stands for
 * v * 2^s, so the scale -15 means 15 bits of fraction. Every conversion, downward or upward,
 * multiplies by 2^(-scale); what was converted down with scale s is restored with -s.
 *
 * Threads. All state is per thread: status, error mode, handler, scratch, pattern stores, HMM
 * servers and classes, semicontinuous codebooks. Handles and ids mean something only on the thread
 * that made them. Nothing takes a lock.
 *
 * Errors. A function that fails reports to the thread's handler, stores a status (KTGetStatus) and
 * returns a failure value. The default handler asks, in a message box or on the terminal, whether
 * to end the process. Where nobody can be asked, it ends the process in the default mode,
 * KT_ErrorModeLeaf, and goes on in KT_ErrorModeParent. A service therefore begins, on each thread,
 * with a handler (KTRedirectError or KTSetStdError) and KTSetErrMode(KT_ErrorModeParent).
 *
 * Silent ends. The signal kernels underneath know no handler: what they refuse ends the process,
 * through exit(1), without a word. These calls reach them; check first:
 *   KTsLPredict       with KT_LPAutocorr or KT_LPCovariance: pSrc is not null, and
 *   KTwLPredict       0 <= order < nSamples. (5 samples and an order of 10 end the process.)
 *   KTsCepstralMFCC   the bank has an fftOrder of 0 to 30 and at least one filter, two without
 *   KTwCepstralMFCC   KT_CepsZeroth; nCeps >= 1; pIn and pCeps are not null.
 *   KTsLPSpectrum     pCoef is not null where nCoef is above 0, and A has no zero on a frequency of
 *   KTwLPSpectrum     the spectrum: 1 - 1/z has one at 0. KTsLPredict can give such coefficients;
 *                     a[i] * g^i with g a little below 1, such as 0.99, moves zeros off the circle.
 *                     In 16 bits A is made of integers in units of 2^inScale, and is 0 already
 *                     below one of them: keep |A| above a few units, and inScale from -15 to 0.
 *   KTsMakeCodebook, KTwMakeCodebook, KTsVQCodebook, KTwVQCodebook   no row is null.
 * KTsCepstralMFCC, KTwCepstralMFCC, KTsLPSpectrum and KTwLPSpectrum also end the process when there
 * is no memory for the tables of their transforms. The tables are kept: call each once, with the
 * sizes to come, where the program can still afford to end. KTNulDevReport and KTStdError end it
 * too, on any report, in KT_ErrorModeLeaf; the first of them silently.
 *
 * Memory. Who calls a ...Init, ...Read, ...Build or ...Make function owns its result and frees it
 * with the matching ...Free. Scratch stays with the thread until the section's KTFree...Tbls is
 * called on it. */
#ifndef KTLP6_H
#define KTLP6_H

#include <stdio.h>

/* The version of this header, in three parts and as one number that grows with it, for a program's
 * own #if. (The record of KTGetLibVersion is a constant that does not follow it.) */
#define KTLP6_VERSION_MAJOR 4
#define KTLP6_VERSION_MINOR 0
#define KTLP6_VERSION_PATCH 18
#define KTLP6_VERSION                                                                              \
    (KTLP6_VERSION_MAJOR * 1000000 + KTLP6_VERSION_MINOR * 1000 + KTLP6_VERSION_PATCH)

#if defined(_WIN32) && !defined(KTLP6_STATIC)
#ifdef KTLP6_BUILDING
#define KTL_API
#else
#define KTL_API __declspec(dllimport)
#endif
#elif defined(KTLP6_BUILDING) && defined(__GNUC__)
#define KTL_API __attribute__((visibility("default")))
#else
#define KTL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ==== context and errors ====================================================================== */

/* Status codes. 0 means no error; negative values are errors, but for the two trace markers, which
 * tell the way of an error through the callers and never replace the stored status. The numbers
 * between -8 and -20 are not used. */
#define KT_StsOk 0             /* no error */
#define KT_StsBacktrace (-1)   /* trace marker: a callee has already failed, a caller tells so */
#define KT_StsUnknownErr (-2)  /* a failure without a better class, such as an unreadable file */
#define KT_StsBadState (-3)    /* an object is in a state in which the operation cannot run */
#define KT_StsNoMem (-4)       /* memory ran out */
#define KT_StsBadArg (-5)      /* an argument was refused */
#define KT_StsUnsupported (-6) /* no such operation for this object */
#define KT_StsNoConverge (-7)  /* an iteration ended without converging */
#define KT_StsAutotrace (-8)   /* trace marker: a call is traced */
#define KT_StsOverflow (-20)   /* numeric overflow */
#define KT_StsUnderflow (-21)  /* numeric underflow */

/* Error modes, per thread: what a handler does with a report.
 *   KT_ErrorModeLeaf    the default: the failure is reported where it happens, and the application
 *                       is to end
 *   KT_ErrorModeParent  report and continue; each caller on the way up may add a line of backtrace
 *   KT_ErrorModeSilent  show nothing, only store the status */
#define KT_ErrorModeLeaf 0
#define KT_ErrorModeParent 1
#define KT_ErrorModeSilent 2

/* Receives reports.
 *   status      what happened, a status code
 *   funcName    the function in which it happened
 *   message     what there is to say
 *   sourceName  the module that reports
 *   line        the line in the file that reports
 * Any of the texts may be null. The result becomes that of KTError; the library ignores it, and by
 * custom it is `status`.
 *
 * A handler is called on the thread that failed and returns there; it must not let an exception or
 * a longjmp pass through. It may call the library and release what it likes, also the servers,
 * codebooks, patterns, mixtures, networks and filter banks that the failing operation has in use,
 * and make others. The operation then touches neither what is gone nor what is new, and ends with
 * its failure value. Arrays that are the caller's own stay in use where an operation goes on after
 * a report, as training and the writing of a model do. */
typedef int (*KTErrorHandler)(int status, const char* funcName, const char* message,
                              const char* sourceName, int line);

/* What the library says of itself; the texts are constant. */
typedef struct KTLibVersion {
    int major;
    int minor;
    int build;
    const char* fileName;
    const char* versionText;
    const char* internalVersion;
    const char* buildDate;
    const char* linkage;
} KTLibVersion;

/* The calling thread's status: 0 in a new thread, then the last one stored. Neither reading it
 * nor a later success clears it: call KTSetStatus(KT_StsOk) before the calls that you want to
 * examine. */
KTL_API int KTGetStatus(void);

/* Stores the calling thread's status.
 *   status  any value */
KTL_API void KTSetStatus(int status);

/* The calling thread's error mode: KT_ErrorModeLeaf in a new thread, then what KTSetErrMode
 * stored. */
KTL_API int KTGetErrMode(void);

/* Stores the calling thread's error mode.
 *   mode  KT_ErrorMode...; not checked. In a mode outside the three, KTStdError and KTNulDevReport
 *         behave as in KT_ErrorModeParent, and KTWinError shows nothing */
KTL_API void KTSetErrMode(int mode);

/* Reports. The library reports its failures through this function; an application may do so too.
 *   status  a status code; 0 clears the stored status, calls no handler and returns 0
 *   funcName, message, sourceName, line  as KTErrorHandler takes them; any text may be null
 * Stores `status` as the thread's status, unless it is one of the two trace markers, and passes all
 * five arguments unchanged to the thread's handler, whose result it returns. */
KTL_API int KTError(int status, const char* funcName, const char* message, const char* sourceName,
                    int line);

/* The text of a status code, such as "Out of memory".
 *   status  a status code; any other value gives "Unknown status code 3" or "Unknown error code -9"
 * The caller does not free the text. The texts of known codes are constant; that of an unknown one
 * stands in one buffer that all threads share, and holds until the next such call. */
KTL_API const char* KTErrorStr(int status);

/* Installs a handler for the calling thread. Returns the handler that was active, never null.
 *   handler  the new handler; null stands for KTWinError */
KTL_API KTErrorHandler KTRedirectError(KTErrorHandler handler);

/* Installs KTStdError for the calling thread and returns the handler that was active. */
KTL_API KTErrorHandler KTSetStdError(void);

/* Installs KTWinError for the calling thread and returns the handler that was active. */
KTL_API KTErrorHandler KTSetWinError(void);

/* The three handlers. Each can be installed, and called by a handler of the application's to pass a
 * report on: the parameters are those of KTError, and any text may be null. Each returns `status`,
 * if it returns. */

/* Writes the report to the standard error stream:
 *
 *     KTL Error: Out of memory
 *         in function
 *         [module:line]:function():
 *         message
 *
 * and for KT_StsBacktrace and KT_StsAutotrace "called from" in place of the first two lines. Other
 * codes it stores as the thread's status. In KT_ErrorModeLeaf it then ends the process with exit
 * code 1, through exit. In KT_ErrorModeSilent it writes nothing, returns, and stores every status
 * but KT_StsBacktrace. */
KTL_API int KTStdError(int status, const char* funcName, const char* message,
                       const char* sourceName, int line);

/* The default handler: shows the report in a message box, captioned with the text of the stored
 * status, and asks. In KT_ErrorModeLeaf the question is whether to terminate the application:
 * Yes ends the process, No continues. In KT_ErrorModeParent it is whether to continue: OK
 * continues, Cancel ends the process. In any other mode it shows nothing and returns. Text and
 * caption hold 999 and 99 characters; the rest is cut off. The end is FatalAppExit on Windows;
 * elsewhere it is immediate, with exit code 1 and no exit handlers run.
 *
 * Where there is no window system, the text goes to standard error and the question is asked
 * there if standard input and standard error are both a terminal. If not, nobody can answer, and
 * the first button counts: in KT_ErrorModeLeaf the process ends, in KT_ErrorModeParent it
 * continues. */
KTL_API int KTWinError(int status, const char* funcName, const char* message,
                       const char* sourceName, int line);

/* Shows nothing, ever. In KT_ErrorModeLeaf it ends the process with exit code 1, through exit. */
KTL_API int KTNulDevReport(int status, const char* funcName, const char* message,
                           const char* sourceName, int line);

/* The library's version record, the same on every call. The caller neither changes nor frees it. */
KTL_API const KTLibVersion* KTGetLibVersion(void);

/* ==== conversions and numeric helpers ========================================================= */

/* Scale modes of every downward conversion and fixed-point output; any value but 0, 1 and 2
 * saturates. */
#define KT_NoScale 0
#define KT_FixedScale 1
#define KT_AutoScale 2
#define KT_Saturate 3

/* Downward: pDst[i] = pSrc[i] * 2^(-scale), as an integer.
 *   pSrc       n elements
 *   pDst       receives n elements. The arrays do not overlap, or begin at one address: conversion
 *              in place, where pDst counts its elements from there on
 *   n          any; of 0 or below, no element is written
 *   scaleMode  which factor, and what becomes of values that do not fit
 *              KT_NoScale     no factor; the fraction is dropped
 *              KT_FixedScale  the factor is 2^(-*pScale); the fraction is dropped; *pScale is kept
 *              KT_AutoScale   the factor is 2^15 or 2^31 divided by 2^order, below: the largest
 *                             power of two that keeps every magnitude below 2^15 or 2^31; *pScale
 *                             receives its scale
 *              else           no factor; values beyond the target's range become the nearer end of
 *                             it, then the fraction is dropped; NaN becomes the smallest value
 *   pScale     in KT_FixedScale read, otherwise written (0 where there is no factor); null stands
 *              for a scale of 0
 * Without saturation a value that does not fit the target, NaN included, becomes the target's most
 * negative value. Nothing wraps, nothing is reported. Factors are exact and products have at least
 * double precision.
 *
 * KT_AutoScale works on the order of the array (below): the scale is the order less 15 (16-bit
 * target) or less 31 (32-bit target), so that 1.0 becomes 16384 with the scale -14, and -1.0
 * becomes -16384, though -32768 would fit. Where the order is above the upper limit all results are
 * 0 and *pScale is 0x7FFFFFFF; below the lower limit all results are 0 and *pScale is 0. The limits
 * are 128 and -125 for KTswb... and KTdwb..., 1024 and -1021 for KTsib... and KTdib...:
 * KTsibConvertDown does not catch an infinity, and gives zeros the scale -157. */
KTL_API void KTswbConvertDown(const float* pSrc, short* pDst, int n, int scaleMode, int* pScale);
KTL_API void KTdwbConvertDown(const double* pSrc, short* pDst, int n, int scaleMode, int* pScale);
KTL_API void KTsibConvertDown(const float* pSrc, int* pDst, int n, int scaleMode, int* pScale);
KTL_API void KTdibConvertDown(const double* pSrc, int* pDst, int n, int scaleMode, int* pScale);

/* One value downward; the result is returned.
 *   value  the value; scaleMode and pScale are as above
 * Two differences from the block functions. The limits of KT_AutoScale are 128 and -125 except for
 * KTdwConvertDown, which has 1024 and -1021. And without saturation the low bits of the truncated
 * magnitude that fit the target are kept and then the sign is applied, so that 40000.0 wraps to
 * -25536 in KTswConvertDown. From a magnitude of 2^31 on, and for NaN, the result is the target's
 * most negative value. */
KTL_API short KTswConvertDown(float value, int scaleMode, int* pScale);
KTL_API short KTdwConvertDown(double value, int scaleMode, int* pScale);
KTL_API int KTsiConvertDown(float value, int scaleMode, int* pScale);
KTL_API int KTdiConvertDown(double value, int scaleMode, int* pScale);

/* Upward: pDst[i] = pSrc[i] * 2^(-scale), rounded once, to the destination's type. The sign is the
 * same as downward: what was converted down with the scale s is restored with -s.
 *   pSrc   n elements
 *   pDst   receives n elements; the arrays do not overlap, or begin at one address
 *   n      any; of 0 or below, nothing is written
 *   scale  any */
KTL_API void KTwsbConvertUp(const short* pSrc, float* pDst, int n, int scale);
KTL_API void KTwdbConvertUp(const short* pSrc, double* pDst, int n, int scale);
KTL_API void KTisbConvertUp(const int* pSrc, float* pDst, int n, int scale);
KTL_API void KTidbConvertUp(const int* pSrc, double* pDst, int n, int scale);

/* One value upward: value * 2^(-scale), in double precision under every name.
 *   value  any
 *   scale  any */
KTL_API double KTwdConvertUp(short value, int scale);
KTL_API double KTidConvertUp(int value, int scale);
KTL_API double KTwsConvertUp(short value, int scale);
KTL_API double KTisConvertUp(int value, int scale);

/* 2^exponent, exact wherever a double can hold it.
 *   exponent  any; infinity for 1024 and above, 0 below -1074 */
KTL_API double KTPower2(int exponent);

/* The order of an array: the smallest k with all magnitudes below 2^k. KTsMaxOrder takes it from
 * the exponent fields alone: -126 where all elements are zero or denormal (and for n below 1), 0
 * for 0.75, 1 for 1.0, 129 where an infinity or a NaN occurs. KTwMaxOrder gives 0 for zeros (and
 * for n below 1), 1 for a largest magnitude of 1, 16 for -32768.
 *   pSrc          n elements
 *   n             any
 *   ppRows        the matrix functions take nRows pointers to rows of nCols elements each
 *   nRows, nCols  any; where one is not above 0, the result is 0 and the data are not looked at */
KTL_API int KTsMaxOrder(const float* pSrc, int n);
KTL_API int KTwMaxOrder(const short* pSrc, int n);
KTL_API int KTsMaxMatrixOrder(float** ppRows, int nRows, int nCols);
KTL_API int KTwMaxMatrixOrder(short** ppRows, int nRows, int nCols);

/* ==== streams ================================================================================= */

/* Opens and closes the streams that the read and write functions take. A module may have a C
 * runtime of its own, to which another runtime's FILE means nothing; so such streams are opened
 * and closed here, and not by the application. Both forward to the standard calls, check
 * nothing, report nothing and leave the status alone. */

/* Opens a file as fopen does. Returns the stream, which the caller closes with KTCloseFile, or null
 * (errno of this module's runtime).
 *   name  the file's name; not null
 *   mode  as fopen takes it; not null. The files of this library are binary: "rb", "wb" */
KTL_API FILE* KTOpenFile(const char* name, const char* mode);

/* Closes a stream of KTOpenFile, as fclose does.
 *   stream  the stream; not null
 * Returns 0, or EOF when writing out what was still buffered failed; the stream is gone in both
 * cases. */
KTL_API int KTCloseFile(FILE* stream);

/* ==== front end: pre-emphasis ================================================================= */

/* y[i] = x[i] - alpha * x[i-1] for i from 1 to n-1, in place, always from the unfiltered previous
 * sample. The first sample of each call passes unfiltered: no state crosses from one call to the
 * next.
 *   pVec   n samples
 *   alpha  any; usual values are 0.9 to 1.0
 *   n      any; nothing happens for n below 1
 * No failure. */
KTL_API void KTsPreemphasize(float* pVec, float alpha, int n);

/* The same on 16-bit samples.
 *   pVec       n samples; afterwards pVec[i] * 2^scale is the filtered sample
 *   scaleMode  the scale mode, as in KTswbConvertDown
 *   pScale     the scale that goes with the mode; null stands for a scale of 0
 *
 * Where alpha lies in 0 to 1, scaleMode is not KT_AutoScale and, for KT_FixedScale, *pScale lies in
 * -14 to 14, the filter runs in integers: alpha is truncated to 14 fraction bits (0.97 to 15892),
 * the accumulator of 32 bits holds the exact difference with those 14 bits, and an arithmetic
 * shift, which rounds toward minus infinity, brings it back.
 *   KT_Saturate    the shift is 14 and the result saturates; *pScale is set to 0
 *   KT_NoScale     the shift is 14 and the low 16 bits are kept: the result wraps; *pScale is set
 *                  to 0
 *   KT_FixedScale  the shift is 14 + *pScale and the result wraps; the first sample is shifted by
 *                  *pScale, to the left where that is negative; *pScale is kept
 *   other modes    the shift is 14 and the result wraps; the first sample is shifted by *pScale,
 *                  which is kept
 * Otherwise the samples go through a float buffer of the thread's own and come back as
 * KTswbConvertDown does it, which truncates toward zero and gives -32768 for what does not fit, or
 * saturates. So the two ways differ by one unit on negative values.
 *
 * Fails with KT_StsNoMem when there is no memory for the float buffer; the samples are then
 * unchanged. */
KTL_API void KTwPreemphasize(short* pVec, float alpha, int n, int scaleMode, int* pScale);

/* Releases the calling thread's float buffer, which otherwise stays for the next call. */
KTL_API void KTFreePreemphasizeTbls(void);

/* ==== front end: mel filter bank ============================================================== */

/* A bank of triangular filters over a spectrum, with the tables of its cepstrum; float in both
 * numeric forms. Made by KTsMFCCInit or KTwMFCCInit, freed by the matching Free. Holds scratch: one
 * thread at a time may use it. */
typedef struct KTMFCCFilters KTMFCCFilters;

/* Sets the calling thread's mel scale, mel(f) = mul * log10(1 + f / div) with f in Hz, for later
 * inits on this thread. Without it the scale is 2595 and 700. Nothing is checked.
 *   mul   the factor before the logarithm
 *   div   the frequency that divides, Hz; 0 brings 2595 and 700 back at the next init, whatever mul
 *         is */
KTL_API void KTSetMelScale(float mul, float div);

/* Designs a filter bank: triangles that overlap by half, each with weights that add up to 1 (S. B.
 * Davis, P. Mermelstein, Comparison of Parametric Representations for Monosyllabic Word Recognition
 * in Continuously Spoken Sentences, 1980).
 *   fftOrder    order of the transform, 0 to 30: the spectrum has 2^fftOrder bins, of which the
 *               filters may reach the upper half as well
 *   nFilters    number of filters; 0 or below gives a bank without filters
 *   lowFreq     left edge of the first filter, Hz
 *   highFreq    right edge of the last filter, Hz
 *   sampleFreq  the frequency that the last of the 2^fftOrder bins stands for, Hz: bin b lies at b
 *               * sampleFreq / (2^fftOrder - 1)
 *   nLinear     how many of the filters are evenly spaced, from lowFreq on, at most nFilters; the
 *               last of them joins the mel-spaced ones
 *   linearTop   where the linear part ends, Hz; at or below lowFreq there is no linear part
 * A filter too narrow to hold a bin gets the whole weight on the bin nearest to its centre, or on
 * its neighbour's bin if it is one of the leading filters, which share one length: the linear ones
 * and the short ones after them. A lone bin exactly on its filter's left edge gets the whole weight
 * too.
 *
 * Returns the bank, for KTsFreeMFCCFilters, or null after a report: status -4, "insufficiency of
 * memory for pointer  " and what there was no room for; all else is released. Arguments are not
 * checked: frequencies in odd orders give odd banks, a scale without a meaning gives weights that
 * are NaN. An fftOrder beyond 0 to 30 gives, without a report, a bank over the first bin alone,
 * with which KT_CepsTimeInput ends the process, and no bank at all (status -4) for 31: check it
 * before the call. */
KTL_API KTMFCCFilters* KTsMFCCInit(int fftOrder, int nFilters, int lowFreq, int highFreq,
                                   int sampleFreq, int nLinear, int linearTop);

/* The same for fixed point. A negative status, be it an old one that was not cleared, is reported
 * once more as a backtrace, and the result is null. */
KTL_API KTMFCCFilters* KTwMFCCInit(int fftOrder, int nFilters, int lowFreq, int highFreq,
                                   int sampleFreq, int nLinear, int linearTop);

/* Free a bank with all it holds.
 *   filters  the bank; null is allowed */
KTL_API void KTsFreeMFCCFilters(KTMFCCFilters* filters);
KTL_API void KTwFreeMFCCFilters(KTMFCCFilters* filters);

/* Applies the bank: pOut[i] is the sum of spectrum values times filter i's weights, each product
 * and the sum in double.
 *   filters    the bank
 *   pSpectrum  from bin 0 up to the highest bin that a filter has; nothing after it is read
 *   pOut       receives as many values as there are filters; does not overlap the spectrum
 * If an argument is null, nothing is done or reported, and the status stays as it was. */
KTL_API void KTsMelFiltering(KTMFCCFilters* filters, const float* pSpectrum, float* pOut);

/* ==== front end: cepstra and liftering ======================================================== */

/* Flags of the cepstrum, in any combination. */
#define KT_CepsTimeInput 0x01   /* the input is samples; otherwise it is a magnitude spectrum */
#define KT_CepsThreshold 0x04   /* before the logarithm values are raised to the threshold */
#define KT_CepsFilterFirst 0x08 /* filter, then logarithm; otherwise the logarithm comes first */
#define KT_CepsZeroth 0x10      /* the output starts at coefficient 0; otherwise at coefficient 1 */

/* Mel-frequency cepstrum of one frame: spectrum, floor, log10, mel filters, orthonormal DCT-II.
 *   filters  the bank; it fixes the length of the frame, N = 2^fftOrder. Null: nothing is done or
 *            reported and the status stays as it was, so test the result of KTsMFCCInit
 *   pIn      KT_CepsTimeInput: N samples, kept as they are. Otherwise N/2 + 1 spectrum values;
 *            without KT_CepsFilterFirst the floor (all of them) and the natural logarithm (up to
 *            one bin after the filters) are written into them
 *   pCeps    receives nCeps coefficients; those that the bank does not have, coefficient nFilters
 *            and up, are 0
 *   nCeps    number of coefficients, 1 or more
 *   thresh   the floor, for KT_CepsThreshold. It applies to the filter outputs with
 *            KT_CepsFilterFirst, otherwise to the spectrum; with KT_CepsTimeInput and without
 *            KT_CepsFilterFirst the spectrum is a power spectrum at that point, and the floor a
 *            power. Without a floor a zero gives minus infinity
 *   flags    KT_Ceps..., above
 * The thread's buffers are kept for the next frame; after the first frame of a size nothing is
 * allocated.
 *
 * Failures: status -4, "insufficiency of memory for pointer  pKTcontext->Ceps." and the buffer's
 * name; pCeps is not written. A negative status that was there before the call is reported as a
 * backtrace: call KTSetStatus(0) before going on after a failure. With KT_CepsTimeInput, and with a
 * number of filters that is 2, 4, 8 or a larger power of two, this ends the call with pCeps
 * unwritten; otherwise pCeps is written all the same. The kernels refuse, and that ends the
 * process, a bank without filters, an fftOrder that is none with KT_CepsTimeInput, and an output
 * without a coefficient (nCeps below 1, or a single filter without KT_CepsZeroth) where the number
 * of filters is 1 or no power of two. */
KTL_API void KTsCepstralMFCC(KTMFCCFilters* filters, float* pIn, float* pCeps, int nCeps,
                             float thresh, int flags);

/* The same in fixed point. All arithmetic is float: the input is converted up, the coefficients are
 * converted down, and only that last conversion truncates, wraps or saturates.
 *   pIn        as above, a real value times 2^inScale; kept as it is
 *   thresh     the floor, also times 2^inScale
 *   inScale    the exponent of the factor on pIn and thresh
 *   outMode    the scale mode of pCeps, as scaleMode in KTswbConvertDown
 *   pOutScale  the scale of pCeps, as pScale there; null stands for a scale of 0
 * After a failure, reported by KTsCepstralMFCC or here (status -4), pCeps is not written; nor is it
 * where the status was negative before the call. */
KTL_API void KTwCepstralMFCC(KTMFCCFilters* filters, short* pIn, short* pCeps, int nCeps,
                             int thresh, int flags, int inScale, int outMode, int* pOutScale);

/* Liftering in place: pCeps[i] *= 1 + L/2 * sin(pi * i / L), for i from 0 to n - 1, computed in
 * double (B. H. Juang, L. R. Rabiner, J. G. Wilpon, On the Use of Bandpass Liftering in Speech
 * Recognition, 1987).
 *   pCeps  n coefficients
 *   n      any; 0 or below changes nothing
 *   L      the lifter's length, in coefficients; 0 changes nothing */
KTL_API void KTsLiftering(float* pCeps, int n, int L);

/* The same in fixed point: each product is truncated toward zero; one that 16 bits do not hold
 * becomes -32768. */
KTL_API void KTwLiftering(short* pCeps, int n, int L);

/* Releases the calling thread's cepstrum buffers, and the tables of the transforms and of the
 * DCT, which all threads share: call it while no other thread transforms. The mel scale is kept. */
KTL_API void KTFreeCepsTbls(void);

/* ==== front end: linear prediction ============================================================ */

/* Methods of linear prediction; where both are set, the first. */
#define KT_LPAutocorr 0x1   /* autocorrelation: Durbin's recursion */
#define KT_LPCovariance 0x2 /* covariance: an LDL decomposition */

/* The predictor of a block of samples: x[n] is about the sum of a[i] x[n-i], i from 1 to `order`.
 *   pSrc      nSamples samples
 *   nSamples  more than `order`
 *   pCoef     receives a[1] to a[order]
 *   order     number of coefficients, 0 or more
 *   flags     the method, KT_LP...
 * Returns 1, or 0 where flags name no method, where memory ran out (KT_StsNoMem; pCoef is
 * unchanged), or where the recursion lost stability, a reflection coefficient beyond 1 in
 * magnitude, which a pure sine can bring about; that is not reported and leaves the status and
 * pCoef alone. A silent block gives 1 and coefficients that are NaN, and so may one with a
 * reflection coefficient of exactly 1, as a slow half sine has it. Too few samples, or an order
 * below 0, are refused by the signal kernels, which end the process.
 *
 * Scratch is the thread's own and stays; no memory is taken after the first call of the largest
 * order. Methods: J. Durbin, The Fitting of Time-Series Models, 1960; B. S. Atal and S. L. Hanauer,
 * Speech Analysis and Synthesis by Linear Prediction of the Speech Wave, 1971; J. Makhoul, Linear
 * Prediction: A Tutorial Review, 1975. */
KTL_API int KTsLPredict(const float* pSrc, int nSamples, float* pCoef, int order, int flags);

/* The same on 16-bit samples; the prediction runs in float.
 *   pCoef      receives the coefficients as KTswbConvertDown gives them: 16 bits, truncated toward
 *              zero, with saturation or -32768 for what does not fit
 *   scaleMode  the scale mode of pCoef, as there
 *   pScale     the scale of pCoef, as there; null stands for a scale of 0
 * Takes memory in each call. Where there is none for the copy of the samples ("insufficiency of
 * memory for pointer  vec", KT_StsNoMem) pCoef and *pScale are unchanged. With any other result of
 * 0, also where the method itself has reported that memory ran out, both are written all the same,
 * with values that mean nothing. */
KTL_API int KTwLPredict(const short* pSrc, int nSamples, short* pCoef, int order, int flags,
                        int scaleMode, int* pScale);

/* Releases what linear prediction and the LP spectrum keep for the calling thread, and the
 * kernel layer's FFT tables, which all threads share: call it while no other thread runs a
 * transform. */
KTL_API void KTFreeLPTbls(void);

/* ==== front end: LP spectrum ================================================================== */

/* The magnitude response of an all-pole model, gain / |A|, A(z) = 1 - sum of a[i] z^(-i), at N =
 * 2^fftOrder equally spaced frequencies from 0 up to but not including half the sampling rate.
 *   pCoef     a[1] to a[nCoef]; may be null where nCoef is 0 or below
 *   nCoef     number of coefficients; 0 or below stands for A = 1
 *   pSpec     receives N values; may begin where pCoef does
 *   fftOrder  0 to 30
 *   gain      any
 * Few coefficients for the order are summed directly, with a table of sines and cosines that stays
 * with the thread for this pair of fftOrder and nCoef; more go through a real FFT of 2N points in a
 * buffer that stays as well. Fails with pSpec unchanged: KT_StsNoMem for table or buffer,
 * KT_StsBadArg for an order outside 0 to 30, and in the direct sum for a null pCoef ("pCoef==0").
 * The FFT also fails, with a backtrace report, where the thread's status was negative before the
 * call. A zero of A on one of the frequencies, and with the FFT a null pCoef, are refused by the
 * signal kernels, which end the process. */
KTL_API void KTsLPSpectrum(const float* pCoef, int nCoef, float* pSpec, int fftOrder, float gain);

/* The same in 16 bits.
 *   pCoef      coefficients, stored * 2^inScale
 *   inScale    the scale of the coefficients
 *   outMode    the scale mode of pSpec, as scaleMode in KTswbConvertDown
 *   pOutScale  the scale of pSpec, as pScale there; null stands for a scale of 0
 * The direct sum has twiddles of 14 fraction bits and accumulators of 32 bits, which wrap: the one
 * of A stands there as 2^(14 - inScale), and as 0 where 32 bits do not hold that. The FFT's bins
 * are integers in the coefficients' scale, which saturate at 16 bits; the one of A is 0 there for
 * an inScale above 0 or below -15. From the magnitudes on the computation is in float, until the
 * conversion downward truncates. Failures as above. */
KTL_API void KTwLPSpectrum(const short* pCoef, int nCoef, short* pSpec, int fftOrder, float gain,
                           int inScale, int outMode, int* pOutScale);

/* ==== distances =============================================================================== */

/* Mahalanobis distances (P. C. Mahalanobis, On the Generalised Distance in Statistics, 1936): the
 * difference of two vectors weighted by an inverse covariance. Nothing is checked, reported or
 * allocated.
 *   pVec1, pVec2  nDim elements each; fixed-point vectors have the same scale
 *   ppInvCov      inverse covariance: nDim rows, of which row i needs to hold only elements 0 to i
 *                 (the lower triangle of a symmetric matrix; the rest is never read)
 *   pInvCovD      inverse variances of a diagonal covariance: nDim elements
 *   nDim          1 or more (below, the distance is 0)
 *   bRoot         non-zero: the root of the quadratic form; 0: the form itself
 * Differences, products and sums are double precision. Equal vectors give exactly 0. A matrix that
 * is not positive can give a negative form, and its root is NaN. */
KTL_API double KTsMahalanobis(const float* pVec1, const float* pVec2, const float* const* ppInvCov,
                              int nDim, int bRoot);
KTL_API double KTsMahalanobisD(const float* pVec1, const float* pVec2, const float* pInvCovD,
                               int nDim, int bRoot);

/* Fixed point: the distance of the stored integers, taken in double precision (exact below 2^53:
 * nothing wraps). At the end, after the root, it is converted as KTdiConvertDown(distance,
 * scaleMode, pScale) does it; only there can it saturate.
 *   scaleMode  the scale mode of the result, as in KTdiConvertDown
 *   pScale     its scale, as there; null stands for a scale of 0 */
KTL_API int KTwMahalanobis(const short* pVec1, const short* pVec2, const short* const* ppInvCov,
                           int nDim, int bRoot, int scaleMode, int* pScale);
KTL_API int KTwMahalanobisD(const short* pVec1, const short* pVec2, const short* pInvCovD, int nDim,
                            int bRoot, int scaleMode, int* pScale);

/* ==== dynamic time warping: pattern store ===================================================== */

/* Patterns are reference utterances that the library keeps. Each thread has two stores, for
 * float and for fixed point, that know nothing of each other; a handle is an integer, positive
 * unless a file brings another, valid in its store on its thread. A store finds a pattern as
 * quickly among 100,000 as among ten. What is not freed when a thread ends stays allocated. */

/* Stores a copy of a pattern.
 *   ppVectors  nVectors rows of nDim elements
 *   nVectors   frames; a pattern of 0 frames may be stored, and never matches
 *   nDim       elements per frame, 1 or more
 *   scale      of fixed-point rows: a real value is stored * 2^scale
 * Returns the handle, the smallest positive number that is free in the store, or -1 after a report:
 * KT_StsNoMem when memory ran out, KT_StsBadArg for a negative nVectors or an nDim below 1. The
 * store is then unchanged. */
KTL_API int KTsPatternIni(float** ppVectors, int nVectors, int nDim);
KTL_API int KTwPatternIni(short** ppVectors, int nVectors, int nDim, int scale);

/* Looks a pattern up. Each output may be null.
 *   handle      the pattern's handle
 *   pppVectors  receives the stored rows, in the store's own table, which stays valid until the
 *               pattern is freed and is not the caller's to free or to change
 *   pnVectors   receives the number of frames
 *   pnDim       receives the elements per frame
 *   pScale      receives the scale of fixed-point rows
 * Returns the handle, or 0 where there is no such pattern; the outputs are then untouched, and an
 * empty store is reported (KT_StsUnknownErr). */
KTL_API int KTsPatternGet(int handle, float*** pppVectors, int* pnVectors, int* pnDim);
KTL_API int KTwPatternGet(int handle, short*** pppVectors, int* pnVectors, int* pnDim, int* pScale);

/* Frees one pattern.
 *   handle  the pattern's handle
 * Returns 0, or -1 after a report (KT_StsUnknownErr) for an unknown handle. */
KTL_API int KTsPatternFree(int handle);
KTL_API int KTwPatternFree(int handle);

/* Frees all patterns of this thread: 0, also for an empty store, or -1 after reports if some
 * could not be freed. */
KTL_API int KTsPatternFreeAll(void);
KTL_API int KTwPatternFreeAll(void);

/* The number of patterns stored by this thread. */
KTL_API int KTsPatternsNumber(void);
KTL_API int KTwPatternsNumber(void);

/* ==== dynamic time warping: evaluation ======================================================== */

/* Flags of the evaluation. */
#define KT_DTW_FIXED_ENDS 0x01    /* delta counts as 0: paths join the first and the last frames */
#define KT_DTW_USE_THRESHOLD 0x40 /* threshold is used */
#define KT_DTW_NORM_L1 0x80 /* local distance: sum of magnitudes; otherwise root of the squares */

/* Compares a test utterance with stored patterns by dynamic time warping (F. Itakura, Minimum
 * Prediction Residual Principle Applied to Speech Recognition, 1975). Each test frame takes one
 * step, which stays on a pattern frame (never twice in a row), goes to the next one or skips one;
 * equal costs go to the next one. The cost is the sum of the local distances, in float, divided by
 * nothing. A test of one frame counts its distance twice.
 *   pHandles   nPatterns handles of the store of the function's numeric form; an unknown one counts
 *              as a pattern that is not admitted
 *   nPatterns  0 or less: 0 is returned and nothing written
 *   ppTest     nTest rows of nDim elements
 *   nTest      frames of the test
 *   nDim       elements per frame
 *   flags      KT_DTW_..., combined with |
 *   threshold  with KT_DTW_USE_THRESHOLD: a cell whose best predecessor has reached it is dropped,
 *              and a pattern without a path below it gets the threshold as its result; otherwise
 *              the limit is 3.4e+38
 *   delta      pattern frames by which a path may begin late and end early; its sign is ignored
 *   pResults   receives nPatterns results: the cost of the best path; 3.4e+38 for a pattern that is
 *              not admitted, because its nDim differs or its number of frames lies outside (nTest -
 *              1) / 2 + 1 to 2 * nTest - 1 + margin, where the margin is 0 or |delta|
 * Returns the index into pHandles of the smallest result, the lowest one of equals, and 0 where no
 * result is below 3.4e+38; or -1 after a report (KT_StsNoMem), with pResults untouched, when memory
 * ran out. Handles looked up in an empty store are reported (KT_StsUnknownErr). */
KTL_API int KTsEvalDTW(const int* pHandles, int nPatterns, float** ppTest, int nTest, int nDim,
                       int flags, double threshold, int delta, double* pResults);

/* Fixed point: the same computation on real values; nothing wraps.
 *   testScale       the scale of ppTest: a real value is stored * 2^testScale
 *   thresholdScale  the scale of threshold: the real limit is threshold * 2^thresholdScale
 *   scaleMode       the scale mode of the results. They are converted together, after the index was
 *                   settled, as KTdibConvertDown(results, pResults, nPatterns, scaleMode, pScale)
 *                   does it
 *   pScale          their scale, as there; null stands for a scale of 0 */
KTL_API int KTwEvalDTW(const int* pHandles, int nPatterns, short** ppTest, int nTest, int nDim,
                       int testScale, int flags, int threshold, int thresholdScale, int delta,
                       int* pResults, int scaleMode, int* pScale);

/* ==== dynamic time warping: pattern files ===================================================== */

/* One pattern to or from a stream (KTOpenFile, binary), any number of them one after another.
 *   pFile   the stream, at the pattern's position
 *   handle  the pattern's handle
 * A record: the tag "DTW "; handle, a flag, nDim, nVectors, and in fixed point the scale, as 32-bit
 * little-endian words; the vectors row after row as 32-bit floats; in fixed point once more as
 * 16-bit integers. The numeric form is not recorded: what one form wrote, the other misreads. */

/* Writes the pattern; a short write leaves a truncated record, in silence. Nothing is written
 * for an unknown handle; an empty store is reported (KT_StsUnknownErr). */
KTL_API void KTsWriteDTWPattern(FILE* pFile, int handle);
KTL_API void KTwWriteDTWPattern(FILE* pFile, int handle);

/* Reads a pattern into the store, under the handle that it had when it was written: restore into an
 * empty store, since of two equal handles the older one is found. Returns the handle, which may be
 * 0 or negative if the file says so (the number of patterns tells a handle of -1 from a failure),
 * or -1 with no pattern added: in silence for a stream that ends early or holds anything else and
 * when memory ran out, after a report (KT_StsNoMem) where that met the table of 16-bit rows. A
 * fixed record counts as soon as its float rows have come: where its 16-bit rows then fail to come,
 * KTwPatternsNumber stays one too high, which has no other effect. */
KTL_API int KTsReadDTWPattern(FILE* pFile);
KTL_API int KTwReadDTWPattern(FILE* pFile);

/* ==== tree codebooks ========================================================================== */

/* A binary tree of clusters, grown by splitting one leaf after the other along its two farthest
 * members; a vector is quantised by going down the tree, at each node to the nearer of the two
 * children, so the cell found is not always the nearest of all. (Binary-split vector
 * quantisation: A. Buzo, A. H. Gray, R. M. Gray, J. D. Markel, Speech Coding Based Upon Vector
 * Quantization, 1980.) Cells count from 1, from left to right; 0 stands for a vector that was
 * not quantised.
 *
 * A codebook is opaque, belongs to the caller until KT_FreeCodebook, and may be used by several
 * threads at once.
 */
typedef struct KTCodebook KTCodebook;

/* Flags of training: the distance, and which leaf is split next. */
#define KT_CB_EUCLID 0x004        /* Euclidean distance; the only one, and required */
#define KT_CB_SPLIT_LARGEST 0x100 /* the leaf with most members; wins over the other flag */
#define KT_CB_SPLIT_WIDEST 0x200  /* the leaf whose two farthest members are farthest apart */

/* Trains a codebook.
 *   ppVectors  nVectors rows of nDim elements
 *   pLabels    receives nVectors words, each vector's cell; may be null, and is not written on
 *              failure
 *   nVectors   number of rows
 *   nDim       elements per row, 1 or more
 *   nSize      number of cells; below 2 gives one cell
 *   flags      KT_CB_EUCLID and one of the KT_CB_SPLIT flags; without one a codebook of at most two
 *              cells can be made
 *
 * Each split divides the members between the two farthest of them (the first such pair of the
 * list), then once more between the means of the two halves; of equal distances the right side
 * wins. The means of the first division stay as the children's centroids. KT_CB_SPLIT_LARGEST goes
 * on when the vectors of a leaf are all equal and makes empty cells; an empty cell's centroid is
 * NaN in float and 0 in fixed point.
 *
 * Fixed point: distances are truncated to integers (sums of 64 bits), so that close vectors tie; a
 * mean is truncated toward zero. Nothing wraps or saturates.
 *
 * Returns the codebook, or null after a report: KT_StsBadArg without KT_CB_EUCLID, when nDim is
 * below 1, or when there is no leaf left to split (with KT_CB_SPLIT_WIDEST when there are fewer
 * distinct vectors than cells); KT_StsNoMem. */
KTL_API KTCodebook* KTsMakeCodebook(float** ppVectors, int* pLabels, int nVectors, int nDim,
                                    int nSize, int flags);
KTL_API KTCodebook* KTwMakeCodebook(short** ppVectors, int* pLabels, int nVectors, int nDim,
                                    int nSize, int flags);

/* Quantises vectors.
 *   pCodebook    a codebook of the same numeric form
 *   ppVectors    nVectors rows of nDim elements
 *   pIndex       receives nVectors words, each vector's cell; may be null
 *   nVectors     number of rows
 *   nDim         the codebook's; of shorter vectors the elements that exist are compared, of longer
 *                ones as many as the codebook has
 *   pDistortion  receives the mean distance of the vectors from their cells' centroids; 0 when
 *                nVectors is 0 or less, of which there is no mean; may be null
 *
 * Reports KT_StsBadArg, once for the call, when vectors reached no cell: their index is 0 and they
 * add nothing to the distortion. That is so for all of them when the codebook is null or of the
 * other numeric form, or nDim is below 1. Both functions report under the name "KTsVQCodebook". */
KTL_API void KTsVQCodebook(KTCodebook* pCodebook, float** ppVectors, int* pIndex, int nVectors,
                           int nDim, double* pDistortion);

/* The same in fixed point. Distances saturate at 0x7FFFFFFF and are summed in double.
 *   pDistortion  receives what KTdiConvertDown makes of the mean distance; may be null
 *   scaleMode    the scale mode of distances and distortion
 *                KT_FixedScale  counts twice, in each distance and in the mean: a distance,
 *                               truncated to an integer, is shifted right by *pScale (left by
 *                               -*pScale if that is negative) before it is compared and summed, and
 *                               *pDistortion is the mean of such distances times 2^-*pScale.
 *                               Distances that the shift makes equal send a vector right
 *                KT_AutoScale   distances are plain; *pDistortion fills 32 bits, and *pScale
 *                               receives its scale
 *                any other      distances are plain; *pDistortion is truncated (KT_NoScale) or
 *                               saturates (all others); *pScale becomes 0
 *   pScale       goes with the mode; null stands for a word that holds 0. Not written where
 *                pDistortion is null */
KTL_API void KTwVQCodebook(KTCodebook* pCodebook, short** ppVectors, int* pIndex, int nVectors,
                           int nDim, int* pDistortion, int scaleMode, int* pScale);

/* Frees a codebook of either numeric form.
 *   pCodebook  the codebook; null is allowed */
KTL_API void KT_FreeCodebook(KTCodebook* pCodebook);

/* ==== semicontinuous codebooks ================================================================ */

struct GaussMixServer;

/* Semicontinuous models share one set of densities: the thread's codebook, one for each numeric
 * form, which has to exist before such a model is made. Densities are Gaussian mixture servers
 * of one mixture; the codebook takes private copies. */

/* Makes the thread's codebook from labelled vectors: density q is built from the vectors with label
 * q and inverted. An existing codebook is left alone.
 *   ppVectors    nVectors rows of nDim elements
 *   pLabels      nVectors labels, from 0 to nSymbols - 1. KTsMakeCodebook numbers its cells from 1:
 *                subtract 1. A label that no vector has gives a density of NaN; under KT_GAUSS_FULL
 *                such a density is singular
 *   nVectors     number of rows
 *   nDim         elements per row
 *   nSymbols     number of densities
 *   flags        KT_GAUSS_FULL, KT_GAUSS_NORMALIZE
 *   meanScale    fixed point: the scale at which means are stored
 *   invCovScale  fixed point: the scale at which inverse covariances are stored
 * Reports KT_StsNoMem, and KT_StsBadArg for a label with fewer than two vectors under KT_GAUSS_FULL
 * (not where nDim is 1: a single element is not tested so). Any other singular covariance leaves
 * the thread without a codebook, silently. */
KTL_API void KTsMakeSemicontCodebook(float** ppVectors, const int* pLabels, int nVectors, int nDim,
                                     int nSymbols, int flags);
KTL_API void KTwMakeSemicontCodebook(short** ppVectors, const int* pLabels, int nVectors, int nDim,
                                     int nSymbols, int flags, int meanScale, int invCovScale);

/* Sets the thread's codebook from densities.
 *   ppServers  nSymbols servers of one mixture each; they stay the caller's
 *   nSymbols   number of densities
 *   nQuant     elements of a vector
 *   flags      not looked at
 * Returns 1, or -1 when there is a codebook already (free it first), when a server is null, of the
 * other numeric form or of fewer dimensions, or when memory ran out. A density whose copy was
 * reported as out of memory, like any negative status that stood before, leaves the codebook empty;
 * the result is 1 then too: look at KTGetStatus. */
KTL_API int KTsInitSemicontCodebook(struct GaussMixServer** ppServers, int nSymbols, int nQuant,
                                    int flags);
KTL_API int KTwInitSemicontCodebook(struct GaussMixServer** ppServers, int nSymbols, int nQuant,
                                    int flags);

/* Releases the thread's codebook with its densities. Returns 1; -1 when there is none, or while the
 * thread's status is negative. */
KTL_API int KTsFreeSemicontCodebook(void);
KTL_API int KTwFreeSemicontCodebook(void);

/* Float to fixed and fixed to float. Only an empty source is accepted: one that holds densities
 * gives -1 and changes nothing. The target, released first if it holds any, becomes a codebook
 * without densities; the result is 1. To take a codebook to the other numeric form convert its
 * densities with KTswConvertGaussMixServer and hand them to the Init function.
 *   weightScale, meanScale, invCovScale  any; an empty codebook has nothing to scale */
KTL_API int KTswConvertSemicontCodebook(int weightScale, int meanScale, int invCovScale);
KTL_API int KTwsConvertSemicontCodebook(int weightScale, int meanScale, int invCovScale);

/* ==== Kohonen quantiser ======================================================================= */

/* The search step of a self-organising map (T. Kohonen, Self-Organized Formation of Topologically
 * Correct Feature Maps, 1982): the distances of one vector from all codes, and the nearest ones.
 * Nothing is allocated, checked or reported.
 *   pVector     nDim elements
 *   ppCodes     nCodes rows of nDim elements
 *   pDistances  receives nCodes words, the distances in the order of the codes
 *   nDim        elements of a vector
 *   nCodes      number of codes; below 1 nothing is written
 *   pIndices    receives the order of the codes, by nBest
 *               nBest 0 or less  not touched, may be null
 *               nBest 1          pIndices[0] is the nearest code, the first one of equals, and then
 *                                pIndices[that code] is set to 0, so the array must reach that far:
 *                                give it nCodes words
 *               nBest above 1    nCodes words: the nBest nearest in order of distance (at most
 *                                nCodes - 1), then the other codes. At each place the first of the
 *                                smallest that are left is exchanged with the code that stands
 *                                there
 *   nBest       how many of the nearest codes to find
 *   bRoot       0: squared distances; any other: Euclidean ones
 * Distances are compared as 32-bit signed integers in both numeric forms.
 *
 * Float: each squared distance is the sum of two sums in float, over the even and over the odd
 * elements. With nDim below 2, also 0 and below, it is the square of the difference of the first
 * elements, so there has to be one. */
KTL_API void KTsVQKohonen(const float* pVector, float** ppCodes, float* pDistances, int nDim,
                          int nCodes, int* pIndices, int nBest, int bRoot);

/* Fixed point. With scaleMode KT_AutoScale or KT_Saturate the exact squared distances, or their
 * roots, are rounded to float and converted by KTsibConvertDown. With any other mode they are
 * 32-bit sums, which wrap silently; roots are the truncated ones of the sums read as unsigned.
 *   scaleMode  the scale mode of the distances, as above; KT_FixedScale shifts them: right by
 *              *pScale from 1 up (31 and above leave the sign), left by the low five bits of
 *              *pScale below 1, so -1 shifts left by 31
 *   pScale     goes with the mode; null stands for a scale of 0 */
KTL_API void KTwVQKohonen(const short* pVector, short** ppCodes, int* pDistances, int nDim,
                          int nCodes, int* pIndices, int nBest, int bRoot, int scaleMode,
                          int* pScale);

/* ==== Gaussian mixtures ======================================================================= */

/* A mixture of nMix Gaussians in nDim dimensions: weights, means, and inverse covariances, full or
 * diagonal; 32-bit float or 16-bit fixed point. One block of memory, opaque to callers;
 * KTsFreeGaussMixServer frees it, in both numeric forms. A server serves one thread at a time,
 * since every evaluation writes into it; different servers may be used on different threads.
 *
 * The values are relative likelihoods: weight * exp(-q / 2), q being the quadratic form of vector
 * and mean. The power of 2 pi is left out everywhere, and the determinant enters with
 * KT_GAUSS_NORMALIZE only. */
typedef struct GaussMixServer GaussMixServer;

/* Flags of a server. Callers pass KT_GAUSS_NORMALIZE and KT_GAUSS_FULL; the others are the
 * library's. */
#define GAUSS_SERVER_FVR_W 0x10 /* a fixed server */
#define GAUSS_SERVER_FVR_S 0x20 /* a float server */
#define KT_GAUSS_NORMALIZE 0x80 /* weights times the root of the inverse covariance's determinant */
#define KT_GAUSS_FULL 0x100     /* full inverse covariance */
#define KT_GAUSS_DIAGONAL 0x200 /* diagonal inverse covariance */
#define KT_GAUSS_RAW 0x1000     /* the matrices are covariances, not yet inverted */
#define KT_GAUSS_BLOCK 0x40000000 /* set on a float server by the file reader */

/* Makes a server from arrays, which are copied and stay the caller's.
 *   pWeights       nMix weights; a weight of 0 keeps its mixture in the server, and evaluation
 *                  skips it
 *   ppMeans        nMix rows of nDim elements
 *   pppInverseCov  nMix tables of nDim rows of nDim elements, symmetric, both triangles; null for a
 *                  diagonal server
 *   ppInverseCovD  nMix rows of nDim elements, the diagonals; null for a full server
 *   nDim, nMix     1 or more
 *   flags          KT_GAUSS_NORMALIZE or 0, other bits are ignored. Float: each weight that
 *                  evaluation uses is multiplied by the root of the magnitude of its inverse
 *                  covariance's determinant, 0 for a singular full matrix (a pivot below 1e-20).
 *                  Fixed: only remembered
 *   scale          fixed point: a real quadratic form is the integer one * 2^scale. With means
 *                  stored at meanScale and inverse covariances at invCovScale that is 2 * meanScale
 *                  + invCovScale
 * Returns the server, which the caller frees, or null. Reports -5 "One of InverseCov or InverseCovD
 * must be NULL and the other non NULL"; -4 "insufficiency of memory for pointer ptr" for the block,
 * also when it would exceed 2 GB, and "insufficiency of memory for pointer  ptr2" for the thread's
 * work table. nDim or nMix below 1, or another array null, give null without a report. */
KTL_API GaussMixServer* KTsInitGaussMixServer(const float* pWeights, float** ppMeans,
                                              float*** pppInverseCov, float** ppInverseCovD,
                                              int nDim, int nMix, int flags);
KTL_API GaussMixServer* KTwInitGaussMixServer(const short* pWeights, short** ppMeans,
                                              short*** pppInverseCov, short** ppInverseCovD,
                                              int nDim, int nMix, int flags, int scale);

/* Frees a server of either numeric form. One function under two names.
 *   pServer  the server; null is allowed */
KTL_API void KTsFreeGaussMixServer(GaussMixServer* pServer);
KTL_API void KTwFreeGaussMixServer(GaussMixServer* pServer);

/* Frees the calling thread's work tables, which full covariances and training grow and keep. */
KTL_API void KTFreeGaussTbls(void);

/* Writes a server of either numeric form, as the tag "GAUS" and a 32-bit little-endian image. The
 * server is unchanged. Null arguments write nothing.
 *   pFile    the stream (KTOpenFile), written at its position
 *   pServer  the server
 * Nothing is reported: a failed write leaves the stream incomplete, and the stream's own error
 * indicator is all that tells. */
KTL_API void KTWriteGaussMixServer(FILE* pFile, GaussMixServer* pServer);

/* Reads a server. Returns it, for the caller to free, or null.
 *   pFile  the stream (KTOpenFile), read from its position and left at the first byte after the
 *          server
 * The record stays as the file has it, but for KT_GAUSS_BLOCK, which a float server gets and a
 * fixed one loses. A stream that ends, another tag, sizes that contradict each other, a fixed
 * server without GAUSS_SERVER_FVR_W and a KT_GAUSS_FULL that contradicts the stored covariance give
 * null without a report and without a change of the status. Reports -5 "One of InverseCov or
 * InverseCovD must be NULL and the other non NULL" when the record says so, and -4 "insufficiency
 * of memory for pointer  ptr". Memory is taken as data comes in, so a damaged size takes no more
 * than the stream holds. */
KTL_API GaussMixServer* KTReadGaussMixServer(FILE* pFile);

/* The likelihood of a vector under a float server: the sum over mixtures of normalised
 * weight * exp(-|q| / 2), exponents rounded to float, sums in double.
 *   pServer  the server; a raw one is not refused, but its values mean nothing
 *   pVector  nDim elements
 *   nDim     the server's; a larger one counts as that
 * Mixtures whose weight is +0.0 contribute nothing. Reports nothing; 0 for null and for a fixed
 * server. */
KTL_API double KTsEvalGaussMix(GaussMixServer* pServer, const float* pVector, int nDim);

/* The same for a fixed server of two mixtures or more; the vector has the scale of the means. A
 * likelihood is result * 2^*pScale, in units of the weights' scale.
 *   scaleMode  what becomes of S, the sum of the weighted exponentials with 30 fractional bits
 *              KT_NoScale     the low 32 bits of S >> 30; *pScale becomes 0
 *              KT_FixedScale  the low 32 bits of S >> (30 + *pScale), from *pScale of 2 on of its
 *                             upper half, shifted on
 *              KT_AutoScale   30 significant bits of S, or all it has; *pScale receives the scale
 *              else           S >> 30, saturated to 32 bits; *pScale becomes 0
 *   pScale     the scale of the result; null stands for a scale of 0
 * Fixed point: the form of a diagonal server is summed as d * d * c in 32 bits and wraps silently,
 * so the caller's scales must keep it below 2^31; that of a full server is summed in double and
 * truncated to 32 bits. The exponentials have 30 fractional bits and an accuracy of 0.1 per cent.
 * Their products with the 16-bit weights are summed exactly in 64 bits, as S.
 *
 * A server of one mixture gives 0 and leaves *pScale alone, as do null and a float server. Reports
 * nothing. */
KTL_API int KTwEvalGaussMix(GaussMixServer* pServer, const short* pVector, int nDim, int scaleMode,
                            int* pScale);

/* Inverts the matrices of a float server into a new one, covariances into inverse covariances (or
 * back). Diagonals element by element, full matrices by Gauss-Jordan elimination with column
 * pivots, in float.
 *   pServer  the source; it stays the caller's
 *   flags    KT_GAUSS_NORMALIZE or 0. With it the weights of evaluation become
 *            weight * sqrt(|det|), det being the determinant of the result's matrices (from a raw
 *            server) or of the source's (from one not marked raw)
 * Returns the new server, which the caller frees; it keeps the observation count and is not raw.
 * Null without a report when a density is singular: an element or pivot below 1e-30, or a
 * determinant below 1.38e-76; and for null and fixed servers. Reports -4 "insufficiency of memory
 * for pointer  ptr" for the new server, and "insufficiency of memory for pointer  ptr2" for the
 * thread's work table: in this one case pServer is freed, before the report. */
KTL_API GaussMixServer* KTsInvertGaussianCovMatrix(GaussMixServer* pServer, int flags);

/* Estimates one Gaussian: means and unbiased covariances, from sums and sums of products in float
 * (shorts are multiplied as 32-bit integers). The result is a float server of one mixture of weight
 * 1, marked KT_GAUSS_RAW: KTsInvertGaussianCovMatrix makes it fit for evaluation.
 *   ppVectors  nVectors rows of nDim elements
 *   nVectors   2 or more; one vector gives infinities or NaN, and so does none
 *   nDim       elements per row; below 1 gives null without a report
 *   flags      KT_GAUSS_FULL for a full covariance, or 0 for a diagonal one
 * Returns the server, which the caller frees, or null after the report -4 "insufficiency of memory
 * for pointer  ptr". */
KTL_API GaussMixServer* KTsBuildGaussMixServer(float** ppVectors, int nVectors, int nDim,
                                               int flags);
KTL_API GaussMixServer* KTwBuildGaussMixServer(short** ppVectors, int nVectors, int nDim,
                                               int flags);

/* Merges a further batch into an estimate: a new raw server that has, up to rounding, what one
 * build over all vectors would give, full or diagonal as pOld is.
 *   pOld       a raw float server of at least nDim dimensions; left as it is
 *   ppVectors  the batch: nVectors rows of nDim elements
 * Returns the server, which the caller frees; null when the thread's status is negative after the
 * batch was built (KTSetStatus(0) first if an earlier failure left it so), for null and fixed
 * servers and a larger nDim, and after the report -4 "insufficiency of memory for pointer  ptr" for
 * the batch's server or the thread's work vector. */
KTL_API GaussMixServer* KTsTrainGaussMixServer(GaussMixServer* pOld, float** ppVectors,
                                               int nVectors, int nDim);
KTL_API GaussMixServer* KTwTrainGaussMixServer(GaussMixServer* pOld, short** ppVectors,
                                               int nVectors, int nDim);

/* A fixed server from a float one, and back. A real value is stored * 2^scale going down; going up
 * an element becomes stored * 2^(-scale), so that what went down with the scale s comes back with
 * -s.
 *   flser        the float server; left as it is
 *   shser        the fixed server; left as it is
 *   weightScale  one scale for all weights
 *   meanScale    one scale for all means
 *   invCovScale  one scale for all elements of covariances
 * Down: truncates toward zero and saturates at 32767 and -32767; the weights are those that
 * evaluation uses, the determinant factor included; the server's scale becomes 2 * meanScale +
 * invCovScale. Up: the weights become those of evaluation, and, from a server with
 * KT_GAUSS_NORMALIZE, the plain weights are restored by dividing by the root of the determinant
 * unless that is 0. Both keep the observation count.
 *
 * Return the new server, which the caller frees, or null; null also for null. Reports, under the
 * names "KTswConvertGaussMixfServer" and "KTwsConvertGaussMixfServer": -5 "One of InverseCov or
 * InverseCovD must be NULL and the other non NULL", "flser->flags&GAUSS_SERVER_FVR_W",
 * "shser->flags&GAUSS_SERVER_FVR_S"; under "KTsInitGaussMixServer": -4 "insufficiency of memory for
 * pointer  ptr", and for the determinant's copy "insufficiency of memory for pointer  ptr2". */
KTL_API GaussMixServer* KTswConvertGaussMixServer(GaussMixServer* flser, int weightScale,
                                                  int meanScale, int invCovScale);
KTL_API GaussMixServer* KTwsConvertGaussMixServer(GaussMixServer* shser, int weightScale,
                                                  int meanScale, int invCovScale);

/* ==== hidden Markov models: registry and classes ============================================== */

/* A hidden Markov model lives inside the library as a "server" and is known to its thread by an id,
 * 1 or greater, the lowest that is free. One kind of record serves three output kinds (discrete:
 * symbols; continuous: one Gaussian mixture per state; semicontinuous: weights over a codebook of
 * densities shared by all semicontinuous models), two numeric forms (float, fixed point) and two
 * domains (probabilities, costs). A cost is -log10 of a probability: larger is less likely. The
 * algorithms are those of L. R. Rabiner, A Tutorial on Hidden Markov Models and Selected
 * Applications in Speech Recognition, 1989. */

/* Status word of a server, as KTGetHMMParm gives it. The two domain bits are also the `flags` of
 * the Init functions; the library sets all others. */
#define KT_HMM_LOGARITHMIC 0x00000001u    /* data are costs */
#define KT_HMM_EXPONENTIAL 0x00000002u    /* data are probabilities (float alone) */
#define HMM_SERVER_SHORT 0x00000010u      /* fixed point */
#define HMM_SERVER_FLOAT 0x00000020u      /* float */
#define HMM_SERVER_TILED 0x00000100u      /* transitions are stored in tiles of four targets */
#define HMM_SERVER_TRIANGULAR 0x00001000u /* left-to-right model, found from the matrix */
#define HMM_SERVER_BANDED 0x00002000u     /* transitions only to the same state and the next two */
#define HMM_SERVER_SEMICONT 0x00200000u   /* semicontinuous outputs */
#define HMM_SERVER_CONT 0x00400000u       /* continuous outputs */
#define HMM_SERVER_DISCRETE 0x00800000u   /* discrete outputs */
#define HMM_SERVER_OWNS_MIXTURES 0x40000000u /* mixtures are the model's own */

/* Modes of KTSetHMMMode: whether a converting operation releases its source server (the default)
 * or leaves it. */
#define KT_HMM_REPLACE 0x04000000
#define KT_HMM_KEEP 0x08000000

/* The fixed-point cost of zero probability. */
#define HMM_LOG_ZERO 0x1FFFFF

/* Where a matrix is classified, float costs from here on are no transition. */
#define HMM_TOPOLOGY_ZERO_COST 30.0f

/* Chooses what KTsLogHMMServer, KTsExpHMMServer and the conversions do with their source on this
 * thread.
 *   mode  KT_HMM_REPLACE or KT_HMM_KEEP; KT_HMM_REPLACE wins when both are given, and a value with
 *         neither changes nothing */
KTL_API void KTSetHMMMode(int mode);

/* What a server is. Each pointer may be null.
 *   id        the server's id
 *   nStates   receives the number of states
 *   nSymbols  receives the alphabet's size or the number of codebook densities
 *   nQuant    receives the length of an observation vector (continuous, semicontinuous)
 *   scale     receives the scale of fixed costs (real value = stored * 2^scale)
 *   status    receives the status word
 * Returns 0, or -1 for an unknown id, with nothing written. Reports nothing. */
KTL_API int KTGetHMMParm(int id, int* nStates, int* nSymbols, int* nQuant, int* scale, int* status);

/* A class is a set of servers of one output kind, numeric form and domain, evaluated together: the
 * evaluation functions take the negated class id in place of a server's. It does not own its
 * members; a released server leaves all classes.
 *   classId  the id of a class
 *   hmm      the id of a server
 *
 * KTCreateHMMClass returns the new id, 1 or greater, the lowest free one; -1 when memory ran out.
 * KTDeleteHMMClass frees the class and leaves its members alone: 1, or -1 for an unknown id.
 *
 * KTAddHMMToClass returns 1 when the server is a member afterwards, -1 for an unknown id, when
 * memory ran out, or, after the report KT_StsBadArg "wrong class for HMM server", when its output
 * kind, numeric form or domain is not what that of the class's first member was.
 * KTRemoveHMMFromClass returns 1, also when the server was no member, or -1 for an unknown id. */
KTL_API int KTCreateHMMClass(void);
KTL_API int KTDeleteHMMClass(int classId);
KTL_API int KTAddHMMToClass(int classId, int hmm);
KTL_API int KTRemoveHMMFromClass(int classId, int hmm);

/* ==== hidden Markov models: creation, copy, release, query ==================================== */

struct GaussMixServer;

/* Creation. All arrays are copied and stay the caller's; so are the mixture servers, of which the
 * model takes private copies. Values are probabilities or costs as `flags` says.
 *   trans     nStates rows of nStates elements: trans[i][j] is the transition from state i to state
 *             j
 *   out       nStates rows of nSymbols elements: out[i][k] is the output of symbol k in state i, or
 *             the weight of density k there (weights of densities are always plain)
 *   initial   nStates elements, the initial values
 *   mixtures  nStates mixture servers, one for each state
 *   nStates   number of states, 1 or more
 *   nSymbols  size of the alphabet, or number of densities, 1 or more
 *   nQuant    length of an observation vector
 *   flags     float: KT_HMM_LOGARITHMIC (also when 0 is given) or KT_HMM_EXPONENTIAL; fixed:
 *             KT_HMM_LOGARITHMIC or 0 (values without a domain)
 *   scale     the scale of fixed costs, which are 16-bit values; 0x7FFE and 0x7FFF mean zero
 *             probability
 *
 * Returns the new id, or a negative value: -1 for wrong flags, missing arrays, "nStates<1" or, of a
 * discrete model, "nSymbols<1" (each KT_StsBadArg), when memory ran out for the server or a
 * mixture, and when the thread's status is negative. Memory that runs out for the transitions,
 * outputs or initial values alone is not told: the id then belongs to a server of status 0 without
 * states, which evaluates to the failure value. Semicontinuous models need this thread's codebook
 * of the same numeric form first; they also give -2 (there is none), -3 (nSymbols is not its number
 * of densities) and -4 (nQuant is not its vectors' length), each with the report KT_StsBadArg. */
KTL_API int KTwInitHMMServer(const short* const* trans, const short* const* out,
                             const short* initial, int nStates, int nSymbols, int flags);
KTL_API int KTsInitHMMServer(const float* const* trans, const float* const* out,
                             const float* initial, int nStates, int nSymbols, int flags);
KTL_API int KTwInitContHMMServer(const short* const* trans, const short* initial,
                                 struct GaussMixServer** mixtures, int nStates, int nQuant,
                                 int flags, int scale);
KTL_API int KTsInitContHMMServer(const float* const* trans, const float* initial,
                                 struct GaussMixServer** mixtures, int nStates, int nQuant,
                                 int flags);
KTL_API int KTwInitSemicontHMMServer(const short* const* trans, const short* const* out,
                                     const short* initial, int nStates, int nSymbols, int nQuant,
                                     int flags, int scale);
KTL_API int KTsInitSemicontHMMServer(const float* const* trans, const float* const* out,
                                     const float* initial, int nStates, int nSymbols, int nQuant,
                                     int flags);

/* Releases a server, with its private mixtures, and takes it out of every class.
 *   id    the server's id; an unknown one does nothing */
KTL_API void KTFreeHMMServer(int id);

/* Releases everything that the thread holds of this family: servers, classes, both
 * semicontinuous codebooks, scratch; the mode goes back to KT_HMM_REPLACE. The library does not
 * call it by itself. */
KTL_API void KTHMMFreeAll(void);

/* Makes a server of its own with the same contents, in no class.
 *   hmm   the source's id
 * Returns the new id, or -1 for an unknown id or when memory ran out. Under a negative status of
 * the thread the copy is released again; the id, which then belongs to nothing, is returned. */
KTL_API int KTCopyHMMServer(int hmm);

/* A server's parameters in the shape in which the Init functions take them, by source state: the
 * inverse of creation. Every array may be null, and so may single rows of a table: what is null is
 * not delivered. Elements are float for a float server, short for a fixed one.
 *   hmm          the server's id
 *   initial      receives nStates elements
 *   trans        nStates pointers to rows that receive nStates elements
 *   out          discrete models alone: nStates pointers to rows that receive nSymbols elements
 *   semicontOut  semicontinuous models alone: the same, for the weights
 *   mixtures     continuous models alone: nStates slots. Each one that is not null on entry is
 *                overwritten with a new mixture server, which the caller frees with
 *                KTsFreeGaussMixServer; with null, after a report, when memory ran out for it, and
 *                from then on where the report's handler has released the server
 *
 * Float values come as they are stored, costs or probabilities. A transition that the model's
 * topology does not store is 0.0 among probabilities, the largest float among costs, and 0x7FFF in
 * every fixed server. Fixed point: stored values have 32 bits and are limited to -0x7FFF and
 * 0x7FFF, so that zero probability comes back as 0x7FFF; weights have 16 bits and are copied.
 *
 * Returns 0, or -1 for an unknown id, with nothing written. Reports nothing of its own. */
KTL_API int KTGetHMMProb(int hmm, void* initial, void** trans, void** out, void** semicontOut,
                         struct GaussMixServer** mixtures);

/* ==== hidden Markov models: evaluation ======================================================== */

/* Evaluation of one server, or of a class, whose members are scored by ascending id.
 *   hmm           a server's id, or the negated id of a class
 *   observations  discrete models: nFrames symbols, 0 .. nSymbols - 1
 *   frames        the others: nFrames pointers to frames of nQuant elements
 *   nFrames       length of the sequence, 1 or more
 *   pBest         receives the id of the best server; may be null
 * A symbol outside the alphabet, a server of another output kind or numeric form, an id that does
 * not exist, a negative status of the thread, or memory that ran out end the call with the failure
 * value, in silence. Semicontinuous operations need the thread's codebook: with none, or one that
 * does not agree with the server, they report KT_StsBadArg ("_sSemicontCodebook->ccgPdfs==0",
 * "nSymbols!=_sSemicontCodebook->nSymbols", "nQuant!=_sSemicontCodebook->nQuant") and end with the
 * failure value. */

/* Forward: the total likelihood over all paths as a cost, -log10 P, of float servers in the
 * exponential domain (which is not tested). *pBest is set to 0 first; among equals it names the
 * first server. The failure value is the largest float; it is also the result, for the whole
 * class, when one member cannot produce the sequence. With a single frame the likelihoods of a
 * class's members add up from one to the next. */
KTL_API float KTsEvalHMMForward(int hmm, const int* observations, int nFrames, int* pBest);
KTL_API float KTsEvalContHMMForward(int hmm, const float* const* frames, int nFrames, int* pBest);
KTL_API float KTsEvalSemicontHMMForward(int hmm, const float* const* frames, int nFrames,
                                        int* pBest);

/* Viterbi: the cost of the best path of servers in the logarithmic domain (which is not tested).
 * Among equals *pBest names the last server, and it is written only when a server is scored. The
 * failure value is the largest float, or 0x7FFFFFFF.
 *
 * The fixed-point operations return integers at the server's scale (value = stored * 2^scale).
 * Costs are 32-bit sums that wrap: a path of impossible steps adds 2 * HMM_LOG_ZERO a frame.
 *   scaleMode  KT_FixedScale shifts the result by *pScale, right when it is positive and left when
 *              it is negative, without saturation; any other mode sets *pScale to 0
 *   pScale     goes with the mode; null stands for a scale of 0 */
KTL_API float KTsEvalHMMViterbi(int hmm, const int* observations, int nFrames, int* pBest);
KTL_API float KTsEvalContHMMViterbi(int hmm, const float* const* frames, int nFrames, int* pBest);
KTL_API float KTsEvalSemicontHMMViterbi(int hmm, const float* const* frames, int nFrames,
                                        int* pBest);
KTL_API int KTwEvalHMMViterbi(int hmm, const int* observations, int nFrames, int* pBest,
                              int scaleMode, int* pScale);
KTL_API int KTwEvalContHMMViterbi(int hmm, const short* const* frames, int nFrames, int* pBest,
                                  int scaleMode, int* pScale);
KTL_API int KTwEvalSemicontHMMViterbi(int hmm, const short* const* frames, int nFrames, int* pBest,
                                      int scaleMode, int* pScale);

/* ==== hidden Markov models: transforms and files ============================================== */

/* Transforms. Each makes a new server and returns its id, in no class; the source is released, or
 * stays, as KTSetHMMMode says. -1 for an unknown id, when memory ran out (in silence), and after a
 * KT_StsBadArg report where one is named.
 *   hmm   the source's id
 *
 * KTsExpHMMServer turns costs into probabilities, KTsLogHMMServer probabilities into costs, of
 * float servers: initial values, transitions and the outputs of discrete models; weights of
 * densities and mixtures are the same in both domains. The topology stays what it is. Refused:
 * "!(ser->status&HMM_SERVER_FLOAT)", "!(ser->status&KT_HMM_LOGARITHMIC)",
 * "!(ser->status&KT_HMM_EXPONENTIAL)". Probability 0 becomes an infinite cost; a cost of 30 becomes
 * 1e-30. When memory runs out while transitions are being rewritten, a copy of the source stays
 * registered, of which only the initial values have been transformed. */
KTL_API int KTsExpHMMServer(int hmm);
KTL_API int KTsLogHMMServer(int hmm);

/* Numeric form: KTswConvertHMMServer makes a fixed server from a float one, KTwsConvertHMMServer
 * the reverse. Both take servers of costs: KT_HMM_EXPONENTIAL is refused with
 * "ser->status&KT_HMM_EXPONENTIAL" (under the name KTswConvertHMMServer in both). A server that is
 * not of the form converted from gives -1 in silence.
 *   scale  of initial values, transitions and outputs. Down: it becomes the server's scale. Up:
 *          give the negated scale of the way down; the new server's scale is 0
 *   weightScale, meanScale, invCovScale  go to KTswConvertGaussMixServer and
 *          KTwsConvertGaussMixServer for each state of a continuous model and mean nothing for
 *          others; where one of them leaves the thread's status negative, the result is -1
 *
 * Down: x becomes x * 2^(-scale), truncated toward zero. x of 0x1FFFFF * 2^(-scale) or more (the
 * unscaled x, compared with the scaled limit) becomes HMM_LOG_ZERO, x below its negative
 * -HMM_LOG_ZERO; what passes and leaves 32 bits becomes the most negative integer. Weights of
 * densities have the limit 32767 * 2^(-scale) and keep the low 16 bits of the same words: beyond
 * the limit 1.0 becomes -1 and -1.0 becomes 1. A banded model with an odd number of states loses
 * its transition from state 0 to state 2.
 *
 * Up: an integer of 0x7FFF or more (HMM_LOG_ZERO among them) becomes the largest float, one of
 * -0x7FFF or less its negative, any other v the float v * 2^(-scale). */
KTL_API int KTswConvertHMMServer(int hmm, int scale, int weightScale, int meanScale,
                                 int invCovScale);
KTL_API int KTwsConvertHMMServer(int hmm, int scale, int weightScale, int meanScale,
                                 int invCovScale);

/* The orders (KTsMaxOrder) of a model's parts, by which scales for KTswConvertHMMServer are chosen.
 * Each pointer may be null; an unknown id writes nothing.
 *   hmm            the server's id
 *   pOrder         receives the largest order among initial values, transitions and, for a discrete
 *                  model, outputs; costs above 40.0 (above 0x10000 in a fixed server) count as 0
 *   pWeightsOrder  receives the largest order of the weights, of the states' mixtures or,
 *                  semicontinuous, of the server itself
 *   pMeansOrder    receives the largest order of the means, of the states' mixtures or of the
 *                  thread's codebook of the server's numeric form
 *   pVarsOrder     receives the largest order of the inverse covariances, of the same
 * The last three are written for continuous and semicontinuous models alone, with -0x7FFFFFFF where
 * there is nothing. KT_StsNoMem, "insufficiency of memory for pointer  buff" ("bufs" for a fixed
 * server), when there is no scratch for the comparison of costs; nothing is written then. The
 * scratch stays until KTHMMFreeAll. */
KTL_API void KTGetHMMScales(int hmm, int* pOrder, int* pWeightsOrder, int* pMeansOrder,
                            int* pVarsOrder);

/* Files: one server after the other on a binary stream, each a header of 16 bytes with a name, the
 * record, and the arrays as they are stored, all as a 32-bit little-endian image that every build
 * reads and writes alike. Nothing is converted: numeric form and domain come back as they were. The
 * semicontinuous codebook is not in the file.
 *   stream  the stream (KTOpenFile), at the server's position
 *   hmm     the id of the server to write; an unknown one writes nothing
 *   name    written: at most 12 characters, or null; further ones are dropped. Read: room for 12
 *           characters, or null; receives the name in the file, with its terminator unless it has
 *           12 characters, and is filled even where what follows cannot be read
 *
 * KTWriteHMMServer: a write that comes up short ends the operation in silence and leaves the file
 * incomplete. Continuous models: a negative status of the thread after a mixture gives a
 * KT_StsBacktrace report, and the writing stops unless the handler returns 0.
 *
 * KTReadHMMServer returns the id of a new server, its tag and status as they are on file, which the
 * caller frees with KTFreeHMMServer. It returns -1 for everything that is not a server, whole and
 * consistent (the project's docs/reliability.md lists what that is), and when memory ran out;
 * nothing is registered then. It reports nothing itself; the mixtures' reader may. A status of the
 * thread that is negative at the end releases the new server; its id is returned all the same. */
KTL_API void KTWriteHMMServer(FILE* stream, int hmm, const char* name);
KTL_API int KTReadHMMServer(FILE* stream, char* name);

/* ==== hidden Markov models: training ========================================================== */

/* Baum-Welch re-estimation from several observation sequences (L. R. Rabiner, A Tutorial on Hidden
 * Markov Models and Selected Applications in Speech Recognition, 1989; L. E. Baum et al., A
 * Maximization Technique Occurring in the Statistical Analysis of Probabilistic Functions of Markov
 * Chains, 1970).
 *   hmm             the id of one float server of the operation's output kind in the exponential
 *                   domain (which is not tested); class ids are refused. The server is never
 *                   changed
 *   ppObservations  discrete models: nSequences rows; row q holds pFrames[q] symbols, 0 .. nSymbols
 *                   - 1
 *   pppFrames       the others: nSequences tables; pppFrames[q][t] is frame t, nQuant floats
 *   pFrames         nSequences lengths
 *   nSequences      number of sequences
 *   maxIterations   iterations end after so many; below 1 stands for 1000
 *   pTolerance      the goal: iterations end when the greatest change of a parameter falls below
 *                   *pTolerance where that is above 0, otherwise below 1e-6. On success it receives
 *                   the last change, so that comparing it with the goal tells whether the training
 *                   converged. May be null
 *
 * A sequence that the model cannot produce, one with a symbol outside the alphabet and an empty one
 * have no influence. States that are never visited keep their transitions and outputs;
 * probabilities below 1e-20 become 0, and zeros stay zeros.
 *
 * Finite data give finite models. Values beyond the floats in the only frame of a sequence leave it
 * without influence, as they do in longer ones. Where backward variables, products or sums leave
 * the doubles or floats, occupancies come from the forward variables alone, which takes several
 * times as long; what is then still no finite float (with numbers that are no probabilities) keeps
 * the value before.
 *
 * Returns the id of a new server, which KTFreeHMMServer releases; -1: no such server, a server of
 * another output kind or numeric form, or memory ran out; everything made on the way is released
 * then. Nothing is reported, except by the mixture servers that continuous training makes, which
 * report KT_StsNoMem.
 *
 * Discrete. Re-estimates start values, transitions and outputs; all of them enter the change. */
KTL_API int KTsTrainHMMBaumWelch(int hmm, const int* const* ppObservations, const int* pFrames,
                                 int nSequences, int maxIterations, float* pTolerance);

/* Continuous. Re-estimates start values, transitions, mixture weights and means; inverse
 * covariances stay. A density counts as weight * exp(-|q|) with a full inverse covariance and
 * weight * exp(-|q| / 2) with a diagonal one, q being the quadratic form; the weights are the
 * normalised ones in the first iteration and the re-estimated ones from then on. A component
 * that receives no frames gets a mean of zeros, and a weight of zero stays zero. Weights do not
 * enter the change.
 *
 * The re-estimated weights also take the place of the normalised ones, so that mixtures made
 * with KT_GAUSS_NORMALIZE lose their determinants, and models with different covariances no
 * longer compare: of two with variances of 0.04 and 25 the wide one then costs less for narrow
 * data as well. Give all Gaussians of all models one inverse covariance, or build trained models
 * anew: take the parameters with KTGetHMMProb, mixtures included, and make a server of them with
 * KTsInitContHMMServer, which normalises again what KT_GAUSS_NORMALIZE marks. Mixtures that were
 * not made so are marked by KTsInvertGaussianCovMatrix, twice, with that flag the second time. */
KTL_API int KTsTrainContHMMBaumWelch(int hmm, const float* const* const* pppFrames,
                                     const int* pFrames, int nSequences, int maxIterations,
                                     float* pTolerance);

/* Semicontinuous. Re-estimates start values, transitions and the states' weights; all of them
 * enter the change. The thread's codebook is only read. Where its counts are not the server's,
 * KT_StsBadArg is reported ("nSymbols!=_sSemicontCodebook->nSymbols",
 * "nQuant!=_sSemicontCodebook->nQuant", and "_sSemicontCodebook->ccgPdfs==0" when it is empty)
 * and the training goes on with what both have: densities that the codebook lacks never respond. */
KTL_API int KTsTrainSemicontHMMBaumWelch(int hmm, const float* const* const* pppFrames,
                                         const int* pFrames, int nSequences, int maxIterations,
                                         float* pTolerance);

/* ==== multilayer perceptrons ================================================================== */

/* Feed-forward networks with one weighted layer after the other, in two numeric forms of one shape:
 * 32-bit float weights and data, or 16-bit weights, 32-bit net sums and 16-bit outputs. Servers are
 * opaque and own their memory. They hold scratch, so a server serves one thread at a time;
 * different servers may be used on different threads.
 *
 * nLayers counts the input layer. pCounts[0] is the number of inputs and pCounts[l], l from 1 to
 * nLayers - 1, the number of neurons of layer l. Tables of layers are indexed by l - 1:
 * pppWeights[l - 1][j] is the row of neuron j of layer l, one weight per output of layer l - 1. A
 * neuron's net sum is the inner product of its row and those outputs; its output is the activation
 * of that.
 *
 * Sparse networks name the inputs of each neuron: row j of layer l has ppConnCounts[l - 1][j]
 * weights, and pppConnections[l - 1][j][i] is the index, in layer l - 1, of input i. They are
 * evaluated, but neither trained nor written to files. A dense network described as a sparse one
 * scores the same, and where the dense evaluation stops short the sparse one goes on:
 * - A connection may name any of the pCounts[0] inputs. Those from nInputs on count as 0; they are
 *   not read, and neither is anything outside the caller's array. The dense evaluation looks at the
 *   first nInputs weights of a row only.
 * - Every index is checked once, by the Init.
 * - Thresholds, with or without KT_MLP_THRESHOLD, play no part, unlike in a dense network.
 * - Float evaluation takes memory in each call and can fail when there is none; that of a dense
 *   network cannot. */
typedef struct sMLPServer sMLPServer;
typedef struct wMLPServer wMLPServer;

/* Activations and derivatives of a layer. Training calls those of an application with n = 1, and
 * derivatives with the neuron's output, not its net sum.
 *   pIn       n elements
 *   pOut      receives n elements
 *   n         number of elements
 *   inScale   fixed point: an input stands for pIn[i] * 2^(-inScale)
 *   outScale  fixed point: a result r is to be stored as r * 2^(-outScale) */
typedef void (*KTMLPActivationFn)(const float* pIn, float* pOut, int n);
typedef void (*KTMLPFixedActivationFn)(const int* pIn, short* pOut, int n, int inScale,
                                       int outScale);

/* Flags; others are kept, and mean nothing. */
#define KT_MLP_SIGMOID 2   /* the sigmoid pair on every layer */
#define KT_MLP_THRESHOLD 4 /* thresholds are in force */
#define KT_MLP_ABS 8       /* the 1/(1+|x|) pair on every layer, unless KT_MLP_SIGMOID is set too */

/* Makes a server. Weights, connections, counts and functions are copied, and the caller's arrays
 * can go at once.
 *   pppWeights      rows as above; only the live weights are read
 *   pppConnections  as above; null for a dense network
 *   ppConnCounts    as above; null for a dense network
 *   pCounts         nLayers widths, 0 or more
 *   pActivation     nLayers - 1 functions; with KT_MLP_SIGMOID or KT_MLP_ABS ignored and may be
 *                   null
 *   pDerivative     nLayers - 1 functions; with KT_MLP_SIGMOID or KT_MLP_ABS ignored and may be
 *                   null
 *   nLayers         number of layers, the input layer included; 1 gives a network without weights
 *   flags           KT_MLP_...
 *   weightScale     fixed point: a weight is stored * 2^weightScale, -15 for weights in Q15
 *   pThresholds     one per neuron of all layers, in layer order, or null. NOT copied: the vector
 *                   stays the caller's, must outlive the server, and what the caller changes in it
 *                   changes the network
 * Returns the server, freed by KT?FreeMLPServer, or null after a report: -4 "insufficiency of
 * memory for pointer pMLPserver" or "nomemory" (also for widths below 0, nLayers below 1 and sizes
 * beyond the address space), -5 "can't define type of activation and derivative function to use"
 * without a flag and with a function array missing, -5 "bad connections of a sparse network" when
 * pppConnections is missing or an index lies outside the layer before. */
KTL_API sMLPServer* KTsInitMLPServer(float*** pppWeights, int*** pppConnections, int** ppConnCounts,
                                     const int* pCounts, const KTMLPActivationFn* pActivation,
                                     const KTMLPActivationFn* pDerivative, int nLayers, int flags,
                                     const float* pThresholds);
KTL_API wMLPServer* KTwInitMLPServer(short*** pppWeights, int*** pppConnections, int** ppConnCounts,
                                     const int* pCounts, const KTMLPFixedActivationFn* pActivation,
                                     const KTMLPFixedActivationFn* pDerivative, int nLayers,
                                     int flags, int weightScale, const short* pThresholds);

/* Frees a server, but not the thresholds.
 *   pServer  the server; null is allowed */
KTL_API void KTsFreeMLPServer(sMLPServer* pServer);
KTL_API void KTwFreeMLPServer(wMLPServer* pServer);

/* Makes a weights table for a dense network: fill the rows, hand it to KT?InitMLPServer, free it.
 *   pCounts  nLayers widths
 *   nLayers  number of layers, the input layer included
 *   value    what every weight is at first
 * Rows are padded to a multiple of 4 elements, and the block begins on a 32-byte boundary. Returns
 * the table, or null after the report -4 "nomemory". There is no random initialisation: a network
 * that is to be trained wants rows that differ. */
KTL_API float*** KTsSetWeightsStr(const int* pCounts, int nLayers, float value);
KTL_API short*** KTwSetWeightsStr(const int* pCounts, int nLayers, short value);

/* Frees a weights table. One function under two names.
 *   ppp   the table; null is allowed */
KTL_API void KTsFreeWeightsStr(float*** ppp);
KTL_API void KTwFreeWeightsStr(short*** ppp);

/* Copies the pCounts[layer - 1] weights of one neuron out of a dense server, and into it. Nothing
 * happens for a layer or a neuron that is not there, and for a sparse server.
 *   pServer  the server
 *   layer    counts from 1
 *   neuron   counts from 0
 *   pDest    receives the weights
 *   pSrc     the new weights */
KTL_API void sMLPGetWeights(sMLPServer* pServer, int layer, int neuron, float* pDest);
KTL_API void sMLPSetWeights(sMLPServer* pServer, int layer, int neuron, const float* pSrc);

/* The logistic sigmoid 1 / (1 + exp(-x)), within a relative error of 3e-7: a table of polynomials
 * for x between -78 and 17, the formula from -104 to -78 and for 17, 1 above and 0 below.
 *   pIn   n values
 *   pOut  receives n values; may be pIn, here and in the three float functions that follow. Where
 *         the arrays overlap otherwise, this one works upward from the first element, and those
 *         three downward from the last
 *   n     number of values */
KTL_API void KTsSigmoidActivation(const float* pIn, float* pOut, int n);

/* (1 - v) * v of the neuron's output v. */
KTL_API void KTsSigmoidDerivative(const float* pIn, float* pOut, int n);

/* 1 / (1 + |x|). */
KTL_API void KTsAbsActivation(const float* pIn, float* pOut, int n);

/* -1 / (1 + x)^2 for x > 0, 1 / (1 - x)^2 for x < 0, and 0 for 0. Training calls it with the
 * neuron's output, as it calls every derivative. */
KTL_API void KTsAbsDerivative(const float* pIn, float* pOut, int n);

/* The same in fixed point. All work from the last element to the first, and in double precision.
 * pIn and pOut do not overlap.
 *   inScale   an input stands for pIn[i] * 2^(-inScale)
 *   outScale  a result r is stored as r * 2^(-outScale)
 *
 *   KTwSigmoidActivation  the formula; truncated and saturated to 16 bits, at any outScale. The
 *                         power of two of the input is that of a 32-bit integer, 1 << inScale,
 *                         with counts modulo 32. With inScale 0 THE INPUT IS NOT READ: x is the
 *                         scaled result of the element before, 0.0 for the last element, which
 *                         comes first.
 *   KTwSigmoidDerivative  truncated, and not saturated: the low 16 bits
 *   KTwAbsActivation      the same; x is the low 16 bits of the input with their sign: larger sums
 *                         wrap
 *   KTwAbsDerivative      the same; the case is chosen by the sign of the whole 32 bits */
KTL_API void KTwSigmoidActivation(const int* pIn, short* pOut, int n, int inScale, int outScale);
KTL_API void KTwSigmoidDerivative(const int* pIn, short* pOut, int n, int inScale, int outScale);
KTL_API void KTwAbsActivation(const int* pIn, short* pOut, int n, int inScale, int outScale);
KTL_API void KTwAbsDerivative(const int* pIn, short* pOut, int n, int inScale, int outScale);

/* Evaluates a network.
 *   pServer   the network
 *   pInput    nInputs floats
 *   nInputs   the width of the first layer, in place of pCounts[0]: with fewer, the rest of each
 *             row plays no part; more than pCounts[0] are not looked at
 *   pOutput   receives as many floats as the last layer has neurons, whatever nOutputs says
 *   nOutputs  not looked at
 * With KT_MLP_THRESHOLD the thresholds, if there are any, are subtracted from the net sums of a
 * dense network; a sparse one has none. A layer whose activation is null stores nothing. A network
 * of nLayers = 1 writes nothing. Products and sums are floats; a sum runs in 16 lanes, column i in
 * lane i % 16, which are then added as a tree. A dense server needs no memory and cannot fail; a
 * sparse one reports -4 "insufficiency of memory for pointer  outputPtr" and leaves pOutput as it
 * was. */
KTL_API void KTsEvalMLPFeedForward(sMLPServer* pServer, const float* pInput, int nInputs,
                                   float* pOutput, int nOutputs);

/* Evaluates a network in fixed point.
 *   pInput        nInputs words
 *   pOutput       receives nOutputs words: that many results of the last layer, if it has them
 *   nOutputs      number of results
 *   scaleMode     how results are brought from actScale to the caller's scale
 *                 KT_FixedScale  to *pScaleFactor, by a shift to the right that rounds down, or one
 *                                to the left that drops what goes beyond 16 bits
 *                 KT_NoScale     *pScaleFactor becomes 0, and results are shifted to the right by
 *                                an actScale above 0, to the LEFT by the low five bits of one
 *                                below, which for -15 leaves 0
 *                 any other      *pScaleFactor becomes 0 and results are copied
 *   pScaleFactor  goes with the mode; null stands for a scale of 0
 *   actScale      the scale of inputs, net sums and outputs of all layers: a value is
 *                 stored * 2^actScale, -15 for Q15
 * Fixed point: a product of a weight and an input, 32 bits, is shifted right by -weightScale
 * (modulo 32) before it is added, rounding down: (-1 * 1) >> 15 is -1. The 32-bit sums wrap.
 * Thresholds, 16 bits on the scale of the weights, are brought to actScale by a shift of
 * weightScale - actScale (to the left when positive) and subtracted with wrapping, as in float and
 * there too in dense networks only. The library's sigmoid saturates. With actScale 0 it does not
 * read the sums; see KTwSigmoidActivation. No failure. */
KTL_API void KTwEvalMLPFeedForward(wMLPServer* pServer, const short* pInput, int nInputs,
                                   short* pOutput, int nOutputs, int scaleMode, int* pScaleFactor,
                                   int actScale);

/* Trains a dense float network in place by back-propagation with momentum, pattern by pattern.
 *   pServer         the network
 *   ppInputs        nPatterns rows of pCounts[0] floats, also when nInputs is smaller
 *   nPatterns       number of patterns
 *   nInputs         the width of the first layer in the first error measure and for the first
 *                   pattern; from then on the function takes the width of the LAST layer for it
 *   ppTargets       nPatterns rows of nOutputs floats
 *   nOutputs        the width of the last layer
 *   learningRate    a weight changes by learningRate * delta * input + momentum * its previous
 *                   change
 *   maxEpochs       at most so many times through all patterns; 0 and below train nothing
 *   errorThreshold  training ends before an epoch when the error, the sum of the squared
 *                   differences of all outputs and targets / (2 * nPatterns), is below it or within
 *                   1e-9 of it
 *   momentum        the share of the previous change, see learningRate
 *   pEpochs         receives the number of epochs run; may be null
 *
 * What follows for users:
 * - A network whose first and last layers have the same width trains as expected. Where the last
 *   layer is narrower, only as many inputs as there are outputs are fed forward after the first
 *   pattern, so make the widths equal: give the network output neurons until there are as many as
 *   inputs, pad the targets of the further ones with a constant (0.5 is easy for a sigmoid), and
 *   leave their results out of account. Where it is wider, all inputs take part.
 * - With KT_MLP_THRESHOLD training takes each row's first weight as the threshold of its neuron and
 *   skips the first input, while evaluation, and with it the error, subtracts pThresholds. For a
 *   trained bias leave the flag off and give the network one more input, which is always 1.
 * - Patterns come in their order, each epoch begins one pattern further on, and nothing is random:
 *   shuffle them before.
 * - The previous changes start at 0, except that where rows are padded (a width that is no multiple
 *   of 4) those of the last rows start at the weights themselves. With a momentum of 0 that does
 *   not matter.
 * - The error of the last epoch is not measured: when *pEpochs is maxEpochs, evaluate to know it.
 *
 * Reports -6 "training of a sparse network is not supported"; -4 "insufficiency of memory for
 * pointer  pY", "... server2" (after the report of KTsInitMLPServer) and, as
 * "getErrSumMLPBackProp", "...  o". *pEpochs is not written then. */
KTL_API void KTsTrainMLPBackPropagation(sMLPServer* pServer, const float** ppInputs, int nPatterns,
                                        int nInputs, const float** ppTargets, int nOutputs,
                                        float learningRate, int maxEpochs, float errorThreshold,
                                        float momentum, int* pEpochs);

/* Writes a dense server: a header of 60 (float) or 64 bytes, the neuron counts, the weights with
 * their padding, 32-bit little-endian.
 *   stream   the stream (KTOpenFile), written at its position
 *   pServer  the server
 * Thresholds and functions of the application are not stored: a network that is written with
 * KT_MLP_THRESHOLD comes back without thresholds, and one without KT_MLP_SIGMOID and KT_MLP_ABS
 * does not come back. Reports -6 "a sparse network cannot be written"; "input_output_error" as -4
 * for the header and the counts and as -3 for the weights. Null arguments write nothing. */
KTL_API void KTsWriteMLPServer(FILE* stream, sMLPServer* pServer);
KTL_API void KTwWriteMLPServer(FILE* stream, wMLPServer* pServer);

/* Reads a server. Returns it, for the caller to free, or null.
 *   stream  the stream (KTOpenFile), read from its position and left at the first byte after the
 *           server
 * Null comes without a report when the stream ends within the header; after -5 "Bad sMLPServer
 * identifier" (or wMLPServer); -4 "insufficiency of memory for pointer  pMLPServer0.
 * playerNeuronCounts"; -4 "nomemory" when the stream ends within the counts, when memory does not
 * suffice for the weights, or when the counts contradict each other; -3 "input_output_error" when
 * it ends within the weights; and what KT?InitMLPServer reports. Memory is taken as data comes in,
 * so damaged counts take no more than a few times what the stream holds. */
KTL_API sMLPServer* KTsReadMLPServer(FILE* stream);
KTL_API wMLPServer* KTwReadMLPServer(FILE* stream);

#ifdef __cplusplus
}
#endif

#endif /* KTLP6_H */
