#pragma once

#include "ui/Alert.h"

#include <QString>
#include <QStringList>
#include <deque>
#include <functional>
#include <vector>

namespace tavrel {

/// Answers alerts from a queue instead of showing them, for tests. Each answer chooses a button (by
/// index or by title) and may first act on the alert (fill the accessory's fields). Every alert run is
/// recorded. An alert that finds no answer queued, or whose answer names a button it does not have, is
/// recorded as unexpected and answered with a value below kFirstButton (as if closed).
class ScriptedAlertPresenter : public AlertPresenter {
public:
    using Action = std::function<void(const AlertSpec&)>;

    struct ShownAlert {
        QString message;
        QString informativeText;
        QStringList buttons; ///< as shown: "OK" when the alert gave none
        AlertStyle style = AlertStyle::informational;
        bool hadAccessory = false;
        int response = 0;
        QString windowTitle;
        QString details;
    };

    /// Response given to alerts nobody expected.
    static constexpr int kUnexpectedResponse = 0;

    /// Queues an answer: the button at `index` (0 = the first, affirmative one).
    void answer(int index, Action before = {});
    /// Queues an answer: the button titled `title`.
    void answer(const QString& title, Action before = {});

    int run(const AlertSpec& alertSpec) override;
    /// Up while an answer's action runs.
    bool isAlertUp() const override { return m_alertsUp > 0; }

    const std::vector<ShownAlert>& shown() const { return m_shown; }
    /// One line per alert that was not expected ("unexpected alert: <message>" or a wrong button).
    const QStringList& unexpected() const { return m_unexpected; }
    int pendingAnswers() const { return static_cast<int>(m_answers.size()); }
    QStringList shownMessages() const;

private:
    struct Answer {
        int index = -1;
        QString title;
        Action before;
    };

    std::deque<Answer> m_answers;
    std::vector<ShownAlert> m_shown;
    QStringList m_unexpected;
    int m_alertsUp = 0;
};

} // namespace tavrel
