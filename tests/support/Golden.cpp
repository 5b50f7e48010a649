#include "support/Golden.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace tavelo::testing {

namespace {
QString goldenPath(const QString& name) { return QDir(QStringLiteral(TAVELO_GOLDEN_DIR)).filePath(name); }
} // namespace

QByteArray goldenBytes(const QString& name) {
    QFile file(goldenPath(name));
    if (!file.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "no golden file " << goldenPath(name).toStdString();
        return {};
    }
    return file.readAll();
}

void expectGolden(const QString& name, const QByteArray& actual) {
    if (qEnvironmentVariableIntValue("TAVELO_WRITE_GOLDEN") == 1) {
        QFile file(goldenPath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(actual);
        return;
    }
    const QByteArray expected = goldenBytes(name);
    EXPECT_EQ(actual.size(), expected.size()) << name.toStdString();
    // The first difference, with a little context, rather than two blobs.
    const qsizetype common = std::min(actual.size(), expected.size());
    qsizetype at = 0;
    while (at < common && actual[at] == expected[at]) ++at;
    if (at < common || actual.size() != expected.size())
        ADD_FAILURE() << name.toStdString() << " differs at byte " << at << ":\n  expected: "
                      << expected.mid(std::max<qsizetype>(0, at - 40), 120).toStdString()
                      << "\n  actual:   " << actual.mid(std::max<qsizetype>(0, at - 40), 120).toStdString();
}

} // namespace tavelo::testing
