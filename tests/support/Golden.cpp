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
    EXPECT_EQ(actual.toStdString(), goldenBytes(name).toStdString()) << name.toStdString();
}

} // namespace tavelo::testing
