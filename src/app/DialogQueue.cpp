#include "app/DialogQueue.h"

#include <QCoro/QCoroFuture>
#include <algorithm>

namespace tavrel {

DialogQueue::~DialogQueue() {
    // Whoever still waits is resumed and told that no turn will come.
    for (const std::shared_ptr<Ticket>& ticket : m_line->tickets) {
        ticket->open = false;
        if (!ticket->granted.future().isFinished())
            ticket->granted.finish();
    }
}

DialogQueue::Place DialogQueue::take() {
    auto ticket = std::make_shared<Ticket>();
    ticket->granted.start();
    m_line->tickets.push_back(ticket);
    if (m_line->tickets.size() == 1)
        ticket->granted.finish();
    return Place(m_line, std::move(ticket));
}

DialogQueue::Place& DialogQueue::Place::operator=(Place&& other) noexcept {
    if (this != &other) {
        leave();
        m_line = std::move(other.m_line);
        m_ticket = std::move(other.m_ticket);
    }
    return *this;
}

DialogQueue::Place::~Place() {
    leave();
}

QCoro::Task<bool> DialogQueue::Place::turn() {
    if (!m_ticket)
        co_return false;
    // The future of a turn already given is finished: no wait, and the dialog runs straight away.
    const std::shared_ptr<Ticket> ticket = m_ticket;
    const QFuture<void> granted = ticket->granted.future();
    co_await granted;
    co_return ticket->open;
}

void DialogQueue::Place::leave() {
    const std::shared_ptr<Ticket> ticket = std::move(m_ticket);
    const std::shared_ptr<Line> line = m_line.lock();
    if (!ticket || !line)
        return;
    auto& tickets = line->tickets;
    const auto found = std::find(tickets.begin(), tickets.end(), ticket);
    if (found == tickets.end())
        return;
    const bool hadTurn = found == tickets.begin();
    tickets.erase(found);
    // The next dialog resumes from the event loop (the future's watcher), not inside this one's stack.
    if (hadTurn && !tickets.empty())
        tickets.front()->granted.finish();
}

} // namespace tavrel
