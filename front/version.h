// The version record, and the banner that shows it.
#pragma once

#include "front/types.h"

extern const char szVersionName[13];
extern const char szMakerNotice[40];
extern const ULONG ulVersion; // major in the high byte, minor in the low one

/// Prints the banner: an empty line, the version, the makers and the locale.
void displayKxadminBanner();
