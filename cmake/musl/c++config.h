// SPDX-License-Identifier: Apache-2.0
// Debian has configured the headers of the C++ library for glibc. This stands before their own file
// of the name and says what is different with musl.
#pragma once

#define _GLIBCXX_OS_DEFINES 1  // glibc's is left out
#define _GLIBCXX_GTHREAD_USE_WEAK 0
#define _GLIBCXX_NATIVE_THREAD_ID pthread_self()
#define __NO_CTYPE 1
#define __locale_t locale_t

// Classes of characters, for <locale>, which only has to compile: any distinct bits will do.
enum {
    _ISupper = 1 << 0,
    _ISlower = 1 << 1,
    _ISalpha = 1 << 2,
    _ISdigit = 1 << 3,
    _ISxdigit = 1 << 4,
    _ISspace = 1 << 5,
    _ISprint = 1 << 6,
    _ISgraph = 1 << 7,
    _ISblank = 1 << 8,
    _IScntrl = 1 << 9,
    _ISpunct = 1 << 10,
    _ISalnum = _ISalpha | _ISdigit,
};

#include_next <bits/c++config.h>

#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK
