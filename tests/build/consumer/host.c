int pluginOrder(const float* samples, int count);

int main(void) {
    const float samples[2] = {0.75f, -3.0f};
    return pluginOrder(samples, 2) != 2;
}
