// Included before everything else in hardened builds. The checks of the C library need an
// optimising compiler and warn without one, and whether it optimises is known only here.
#if defined(__OPTIMIZE__) && !defined(_FORTIFY_SOURCE)
#define _FORTIFY_SOURCE 2
#endif
