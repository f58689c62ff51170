/* The smallest complete user of the installed library. */
#include <ktlp6.h>

int main(void) {
    float samples[4] = {0.5f, -0.25f, 0.125f, 0.0f};
    short fixed[4];
    int scale = 0;
    KTswbConvertDown(samples, fixed, 4, KT_AutoScale, &scale);
    printf("%d %d at scale %d, build %d\n", fixed[0], fixed[1], scale, KTGetLibVersion()->build);
    return !(fixed[0] == 16384 && fixed[1] == -8192 && scale == -15);
}
