#include "front/version.h"

#include "front/console.h"

const char szVersionName[13] = "KXADMIN 7.0a";
const char szMakerNotice[40] = "By the kxadmin authors";
const ULONG ulVersion = 0x700;

void displayKxadminBanner() {
    displayEmptyLine();
    displayConsoleMessage("%s", szVersionName);
    displayConsoleMessage("%s", szMakerNotice);
    displayCodePage();
}
