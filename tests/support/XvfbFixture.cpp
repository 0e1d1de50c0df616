#include "XvfbFixture.h"

namespace tavrel::test {

XvfbFixture::XvfbFixture(Options options) : m_options(options), m_dir(QStringLiteral("tavrel-x")) {}

XvfbFixture::XvfbFixture() : XvfbFixture(Options{}) {}

XvfbFixture::~XvfbFixture() {
    stop();
}

::testing::AssertionResult XvfbFixture::start() {
    ManagedProcess::Options options;
    options.program = QStringLiteral("Xvfb");
    // -displayfd 1: Xvfb chooses a free display and writes its number to our pipe once it accepts
    // connections, so parallel test binaries never race for ":99".
    options.arguments = {QStringLiteral("-displayfd"), QStringLiteral("1"),       QStringLiteral("-screen"),
                         QStringLiteral("0"),          m_options.screen,          QStringLiteral("-nolisten"),
                         QStringLiteral("tcp"),        QStringLiteral("-noreset")};
    options.logPath = m_dir.filePath(QStringLiteral("xvfb.log"));
    options.captureStdout = true;
    options.workingDirectory = m_dir.path();
    if (!m_server.start(options))
        return ::testing::AssertionFailure() << m_server.errorString().toStdString();
    const auto line = m_server.readStdoutLine(m_options.startTimeout);
    bool ok = false;
    const int number = line ? line->trimmed().toInt(&ok) : -1;
    if (!ok) {
        const std::string why = m_server.describe().toStdString();
        stop();
        return ::testing::AssertionFailure()
               << "Xvfb did not come up within " << m_options.startTimeout.count() << " ms: " << why;
    }
    m_display = QStringLiteral(":%1").arg(number);
    if (m_options.exportEnvironment)
        m_exported.set("DISPLAY", m_display.toUtf8());
    m_running = true;
    return ::testing::AssertionSuccess();
}

void XvfbFixture::stop() {
    m_server.stop();
    m_exported.restore();
    m_running = false;
}

QProcessEnvironment XvfbFixture::variables() const {
    QProcessEnvironment vars;
    vars.insert(QStringLiteral("DISPLAY"), m_display);
    vars.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    return vars;
}

QProcessEnvironment XvfbFixture::environment() const {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(variables());
    env.remove(QStringLiteral("XAUTHORITY"));
    return env;
}

QString XvfbFixture::logs() const {
    return QStringLiteral("--- Xvfb ---\n") + fileTail(m_dir.filePath(QStringLiteral("xvfb.log")));
}

} // namespace tavrel::test
