#include "ui/ScriptedAlertPresenter.h"

#include "core/Log.h"

namespace tavrel {

void ScriptedAlertPresenter::answer(int index, Action before) {
    m_answers.push_back(Answer{index, {}, std::move(before)});
}

void ScriptedAlertPresenter::answer(const QString& title, Action before) {
    m_answers.push_back(Answer{-1, title, std::move(before)});
}

QStringList ScriptedAlertPresenter::shownMessages() const {
    QStringList messages;
    for (const ShownAlert& alert : m_shown)
        messages << alert.message;
    return messages;
}

int ScriptedAlertPresenter::run(const AlertSpec& alertSpec) {
    ShownAlert shown{alertSpec.message,
                     alertSpec.informativeText,
                     alertSpec.buttons.isEmpty() ? QStringList{QStringLiteral("OK")} : alertSpec.buttons,
                     alertSpec.style,
                     alertSpec.accessory != nullptr,
                     kUnexpectedResponse,
                     alertSpec.windowTitle,
                     alertSpec.details};

    auto reject = [&](const QString& why) {
        m_unexpected << why;
        logLine(QStringLiteral("[ScriptedAlertPresenter] ") + why);
        m_shown.push_back(shown);
        return kUnexpectedResponse;
    };

    if (m_answers.empty())
        return reject(QStringLiteral("unexpected alert: ") + alertSpec.message);

    Answer answer = std::move(m_answers.front());
    m_answers.pop_front();
    const int index = answer.title.isNull() ? answer.index : static_cast<int>(shown.buttons.indexOf(answer.title));
    if (index < 0 || index >= shown.buttons.size()) {
        const QString wanted = answer.title.isNull() ? QString::number(answer.index) : answer.title;
        return reject(QStringLiteral("alert \"%1\" has no button %2 (buttons: %3)")
                          .arg(alertSpec.message, wanted, shown.buttons.join(QStringLiteral(", "))));
    }
    // The answer acts while the alert is up, as a user would.
    ++m_alertsUp;
    if (onAlertUp)
        onAlertUp();
    if (answer.before)
        answer.before(alertSpec);
    --m_alertsUp;
    shown.response = kFirstButton + index;
    m_shown.push_back(shown);
    return shown.response;
}

} // namespace tavrel
