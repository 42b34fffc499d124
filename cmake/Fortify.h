// Included before everything else in hardened builds. _FORTIFY_SOURCE needs optimisation and warns
// without it, and only the preprocessor knows whether it is on.
#if defined(__OPTIMIZE__) && !defined(_FORTIFY_SOURCE)
#define _FORTIFY_SOURCE 2
#endif
