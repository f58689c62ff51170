/* What this offers is its own. */
#include <ktlp6.h>

int pluginOrder(const float* samples, int count);

int pluginOrder(const float* samples, int count) {
    return KTsMaxOrder(samples, count);
}
