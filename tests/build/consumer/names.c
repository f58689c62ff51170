/* Names that the library has inside; an application may use them for what it likes. */
#ifdef __cplusplus
extern "C" {
#endif
int allocFloats(void);
int rowProducts(void);
int ktlFirstContext(void);
int vsqError(void);
int vsqsbCopy(void);
int hmm(void);
int platform(void);

int allocFloats(void) {
    return 1;
}
int rowProducts(void) {
    return 2;
}
int ktlFirstContext(void) {
    return 3;
}
int vsqError(void) {
    return 4;
}
int vsqsbCopy(void) {
    return 5;
}
int hmm(void) {
    return 6;
}
int platform(void) {
    return 7;
}
#ifdef __cplusplus
}
#endif
