// The way to qLibc's calls: the library's headers expect <stdio.h> before them.
#pragma once

// clang-format off
#include <cstdio>
#include <qlibc/qlibc.h>
// clang-format on
