// Stand-in for the header of qLibc's extension library: no call of it is used, but the include
// must work alike with the stand-in and with the library.
#pragma once

#include <qlibc/qlibc.h>
