/* Compiled with -std=c99 -pedantic: the public header must stay plain C. */
#include "paxltrace.h"

int main(void) {
    TraceParameter params[3];
    unsigned char count = (unsigned char)(sizeof(params) / sizeof(params[0]));
    (void)count;
    return sizeof(TraceParameter) == 16 ? 0 : 1;
}
