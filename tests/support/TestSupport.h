#pragma once

#include <QString>

namespace tavrel::test {

/// A fresh temporary directory for one test, removed at the end.
QString makeTempDir(const QString& prefix);

} // namespace tavrel::test
