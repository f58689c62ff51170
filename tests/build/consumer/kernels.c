/* The kernels alone: the spectrum of a constant has its sum at 0 and nothing else. */
#include <vsq.h>

int main(void) {
    float samples[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    int i, wrong = 0;
    vsqsRealFftl(samples, 3, VSQ_Forw | VSQ_RCPerm);
    for (i = 0; i < 8; ++i)
        wrong += samples[i] != (i == 0 ? 8.0f : 0.0f);
    vsqsFreeRealFftTbls();
    return wrong;
}
