#pragma once
// Every test executable fails the running test on a Qt warning or critical message (the handler
// is installed by the shared test main); a message outside any test fails the executable.
// A test that provokes a specific warning on purpose declares it for the scope that does:
//
//     ExpectedQtWarning expected(u"QIODevice::read"_qs);
//
// Messages containing the text are then printed but do not fail the test, and the test fails if
// none came before the guard goes away. Guards may be used from any thread.

#include <QString>

class ExpectedQtWarning
{
public:
    explicit ExpectedQtWarning(QString text);
    ~ExpectedQtWarning();
    ExpectedQtWarning(const ExpectedQtWarning &) = delete;
    ExpectedQtWarning &operator=(const ExpectedQtWarning &) = delete;

    // Messages matched so far.
    int count() const;

private:
    QString m_text;
};
