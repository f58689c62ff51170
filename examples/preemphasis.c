/* Pre-emphasises a recording frame by frame, in float and in 16-bit fixed point, and prints what it does to the level.
 *
 *   preemphasis FILE.wav
 */
#include <ktlp6.h>

#include <math.h>
#include <sndfile.h>
#include <stdlib.h>

enum { FRAME = 400 };

/* The program's own handler of the library's reports: one line each, nobody is asked. */
static int onReport(int status, const char* function, const char* message, const char* source,
                    int line) {
    (void)source;
    (void)line;
    fprintf(stderr, "preemphasis: %s: %s %s\n", KTErrorStr(status),
            function != NULL ? function : "", message != NULL ? message : "");
    return status;
}

static double level(double sumOfSquares) {
    return 10.0 * log10(sumOfSquares / FRAME + 1e-10);
}

int main(int argc, char** argv) {
    SF_INFO info = {0};
    SNDFILE* file = argc == 2 ? sf_open(argv[1], SFM_READ, &info) : NULL;
    if (file == NULL || info.channels != 1) {
        fprintf(stderr, "usage: preemphasis FILE.wav (one channel)%s%s\n", argc == 2 ? ": " : "",
                argc == 2 ? sf_strerror(file) : "");
        return 2;
    }

    KTRedirectError(onReport);
    KTSetErrMode(KT_ErrorModeParent);

    printf("%s: %d Hz, %.2f s\n\n", argv[1], info.samplerate,
           (double)info.frames / info.samplerate);
    printf("  time    level   pre-emphasised   16-bit\n");
    printf("     s       dB               dB       dB\n");
    short samples[FRAME];
    for (int frame = 0; sf_readf_short(file, samples, FRAME) == FRAME; ++frame) {
        float real[FRAME];
        double before = 0.0, after = 0.0, fixed = 0.0;
        int i;
        KTwsbConvertUp(samples, real, FRAME, 15); /* full scale is 1 */
        for (i = 0; i < FRAME; ++i)
            before += (double)real[i] * real[i];
        KTsPreemphasize(real, 0.97f, FRAME);
        KTwPreemphasize(samples, 0.97f, FRAME, KT_Saturate, NULL);
        for (i = 0; i < FRAME; ++i) {
            after += (double)real[i] * real[i];
            fixed += (double)samples[i] * samples[i] / (32768.0 * 32768.0);
        }
        if (frame % 4 == 0)
            printf("%6.2f  %7.1f  %15.1f  %7.1f\n", (double)frame * FRAME / info.samplerate,
                   level(before), level(after), level(fixed));
    }
    KTFreePreemphasizeTbls();
    sf_close(file);
    return KTGetStatus() < 0;
}
