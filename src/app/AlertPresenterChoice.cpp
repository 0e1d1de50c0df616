#include "AlertPresenterChoice.h"

#include "core/Log.h"
#include "ui/QtAlertPresenter.h"
#include "ui/ScriptedAlertPresenter.h"

namespace tavrel {

namespace {

/// Scripted answers that also say what they answered: the end-to-end tests read the program's output.
class LoggedScriptedAlerts final : public AlertPresenter {
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

    int run(const AlertSpec& alertSpec) override {
        // Past the script, answer "closed" without recording it as unexpected noise in the log.
        const int response =
            m_scripted.pendingAnswers() > 0 ? m_scripted.run(alertSpec) : ScriptedAlertPresenter::kUnexpectedResponse;
        logLine(QStringLiteral("[Alert] %1 → %2").arg(alertSpec.message).arg(response));
        return response;
    }

private:
    ScriptedAlertPresenter m_scripted;
};

} // namespace

std::unique_ptr<AlertPresenter> makeAlertPresenter() {
    if (qEnvironmentVariableIsSet("TAVREL_TEST_ALERT_ANSWERS"))
        return std::make_unique<LoggedScriptedAlerts>(qEnvironmentVariable("TAVREL_TEST_ALERT_ANSWERS"));
    return std::make_unique<QtAlertPresenter>();
}

} // namespace tavrel
