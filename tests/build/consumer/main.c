/* The smallest complete user of the installed library, or of its kernels beside it. */
#include <ktlp6.h>
#ifdef WITH_KERNELS
#include <vsq.h>
#endif

int main(void) {
    float samples[4] = {0.5f, -0.25f, 0.125f, 0.0f};
    short fixed[4];
    int scale = 0;
    KTswbConvertDown(samples, fixed, 4, KT_AutoScale, &scale);
    printf("%d %d at scale %d, build %d\n", fixed[0], fixed[1], scale, KTGetLibVersion()->build);
#ifdef WITH_KERNELS
    if (vsqsDotProd(samples, samples, 2) != 0.3125) return 1;
#endif
    return !(fixed[0] == 16384 && fixed[1] == -8192 && scale == -15);
}
