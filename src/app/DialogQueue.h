#pragma once

#include <QCoro/QCoroTask>
#include <QPromise>
#include <deque>
#include <memory>

namespace tavrel {

/// Shows the upload workflow's dialogs one at a time, in the order they were asked for. A place is taken
/// when a dialog is wanted (its client list may load meanwhile); its turn comes once every place taken
/// before it has been given up, and it holds the turn until dropped. Main thread only.
///
///     DialogQueue::Place place = m_dialogs.take();   // in line now
///     ... load what the dialog shows ...
///     if (!co_await place.turn()) co_return;          // the queue is gone (the delegate with it)
///     run the dialog; the next one opens once `place` is dropped
class DialogQueue {
    struct Ticket {
        QPromise<void> granted;
        bool open = true; ///< the queue still exists
    };
    struct Line {
        std::deque<std::shared_ptr<Ticket>> tickets;
    };

public:
    class Place {
    public:
        Place() = default;
        Place(Place&& other) noexcept = default;
        Place& operator=(Place&& other) noexcept;
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place();

        /// Resumes when this place's turn has come: true, or false when the queue went away first.
        QCoro::Task<bool> turn();

    private:
        friend class DialogQueue;
        Place(std::weak_ptr<Line> line, std::shared_ptr<Ticket> ticket)
            : m_line(std::move(line)), m_ticket(std::move(ticket)) {}
        void leave();

        std::weak_ptr<Line> m_line;
        std::shared_ptr<Ticket> m_ticket;
    };

    DialogQueue() = default;
    ~DialogQueue();
    DialogQueue(const DialogQueue&) = delete;
    DialogQueue& operator=(const DialogQueue&) = delete;

    /// A place at the end of the line.
    Place take();
    /// Places taken and not yet given up, the one whose turn it is included.
    int size() const { return static_cast<int>(m_line->tickets.size()); }

private:
    std::shared_ptr<Line> m_line = std::make_shared<Line>();
};

} // namespace tavrel
