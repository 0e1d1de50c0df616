#pragma once

#include <QDBusConnection>
#include <QString>
#include <QVariant>
#include <gtest/gtest.h>

namespace tavrel::test {

/// A property of the running program's fr.tavrel.Recorder interface (IsRecording, IsPaused, ActiveJobs,
/// StatusTitle); invalid while the program does not answer on `bus`.
QVariant recorderProperty(QDBusConnection bus, const QString& name);
/// One of the program's actions (org.freedesktop.Application.ActivateAction), with its parameter if any.
::testing::AssertionResult recorderAction(QDBusConnection bus, const QString& name, const QVariantList& parameter = {});

} // namespace tavrel::test
