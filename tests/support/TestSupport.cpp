#include "TestSupport.h"

#include <QDir>
#include <QTemporaryDir>

namespace tavrel::test {

QString makeTempDir(const QString& prefix) {
    QTemporaryDir dir(QDir::tempPath() + "/" + prefix + "-XXXXXX");
    dir.setAutoRemove(false);
    return dir.path();
}

} // namespace tavrel::test
