#include <quelm.h>
#include <stdio.h>

int main(void) {
    char buf[32];
    unsigned v = quelm_version(buf);
    printf("%s\n", buf);
    return v == 0x90500u ? 0 : 1;
}
