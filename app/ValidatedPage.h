#pragma once

#include <QWizardPage>
#include <functional>

// A wizard page that refuses Next or Finish while its validator says no, so that each page needs
// no subclass of its own.
class ValidatedPage : public QWizardPage
{
public:
    using QWizardPage::QWizardPage;

    // May be empty: the page then always lets the operator on.
    std::function<bool()> validator;

    bool validatePage() override;
};
