#include <ktlp6.h>

int main(void) {
    return KTGetStatus();
}
