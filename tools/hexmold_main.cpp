// The hexmold command-line program (placeholder until the demo lands).
#include <cstdio>
int main() { return 0; }
