#pragma once

// Golden files: the exact bytes a format must produce, kept under
// tests/golden. With TAVELO_WRITE_GOLDEN=1 in the environment the expected
// files are (re)written from what the code produces, to be reviewed in the
// diff before they are committed.

#include <QByteArray>
#include <QString>

namespace tavelo::testing {

QByteArray goldenBytes(const QString& name);
// Fails the current test unless `actual` equals the golden file byte for byte.
void expectGolden(const QString& name, const QByteArray& actual);

} // namespace tavelo::testing
