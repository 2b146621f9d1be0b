// qvtool: inspect and drive a gateway's stores through the library.
#include <cstdio>

int main() { return 0; }
