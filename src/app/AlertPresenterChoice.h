#pragma once

#include "ui/Alert.h"

#include <memory>

namespace tavrel {

/// The program's alert presenter: the real modal dialogs, or — test seam — scripted answers when the
/// environment variable TAVREL_TEST_ALERT_ANSWERS is set. Its value lists the answers in order,
/// separated by "|", each a button index (0 = the first, affirmative button) or a button title; every
/// alert beyond the list is answered as if closed without a button (the dialog's cancel). Each scripted
/// alert is logged as "[Alert] <message> → <response>" so that end-to-end tests can follow them.
std::unique_ptr<AlertPresenter> makeAlertPresenter();

} // namespace tavrel
