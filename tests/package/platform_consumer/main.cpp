// Uses the platform without the library.
#include <qmx/log.h>

int main() { InfoA(3, "%s", "hello"); }
