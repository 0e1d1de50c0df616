// A test build of the program: the same program, with the alerts answered from TAVREL_TEST_ALERT_ANSWERS
// instead of real dialogs. Its value lists the answers in order, separated by "|", each a button index
// (0 = the first, affirmative button) or a button title; every alert beyond the list is answered as if
// closed without a button. Each alert is logged as "[Alert] <message> → <response>" so that end-to-end
// tests can follow them. TAVREL_TEST_JOB_POLL_MS, when set, shortens the wait between two polls of a
// transcription job. The shipped program reads neither variable.
#include "app/AppDelegate.h"
#include "app/Application.h"
#include "core/Log.h"
#include "ui/ScriptedAlertPresenter.h"

namespace {

class LoggedScriptedAlerts final : public tavrel::AlertPresenter {
public:
    explicit LoggedScriptedAlerts(const QString& script) {
        if (script.isEmpty())
            return;
        for (const QString& answer : script.split(u'|')) {
            bool isIndex = false;
            const int index = answer.toInt(&isIndex);
            if (isIndex)
                m_scripted.answer(index);
            else
                m_scripted.answer(answer);
        }
    }

    int run(const tavrel::AlertSpec& alertSpec) override {
        // Past the script, answer "closed" without recording it as unexpected noise in the log.
        const int response = m_scripted.pendingAnswers() > 0 ? m_scripted.run(alertSpec)
                                                             : tavrel::ScriptedAlertPresenter::kUnexpectedResponse;
        tavrel::logLine(QStringLiteral("[Alert] %1 → %2").arg(alertSpec.message).arg(response));
        return response;
    }

private:
    tavrel::ScriptedAlertPresenter m_scripted;
};

} // namespace

int main(int argc, char** argv) {
    return tavrel::runApplication(
        argc, argv,
        [] { return std::make_unique<LoggedScriptedAlerts>(qEnvironmentVariable("TAVREL_TEST_ALERT_ANSWERS")); },
        [](tavrel::AppServices& services) {
            bool isNumber = false;
            const int pollMs = qEnvironmentVariableIntValue("TAVREL_TEST_JOB_POLL_MS", &isNumber);
            if (isNumber && pollMs > 0)
                services.jobPollIntervalMs = std::chrono::milliseconds(pollMs);
        });
}
