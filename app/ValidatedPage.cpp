#include "ValidatedPage.h"

bool ValidatedPage::validatePage()
{
    return !validator || validator();
}
