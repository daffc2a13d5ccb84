/* The least that a program outside the tree does with the installed library. */
#include <QVCapture.h>
#include <stdio.h>

int main(void) {
    unsigned char major = 0;
    unsigned char minor = 0;
    unsigned short build = 0;
    QVGetVersion(&major, &minor, &build);
    printf("version %d.%d.%d\n", major, minor, build);
    return 0;
}
