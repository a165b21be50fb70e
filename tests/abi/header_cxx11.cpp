// The public header from C++11 (no designated initialisers, no newer features): the C11 program.
#include "header_c11.c"
