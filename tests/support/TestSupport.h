#pragma once

// Every fixture and helper of the test harness in one include.
#include "AudioServerFixture.h"
#include "Command.h"
#include "DesktopHosts.h"
#include "ManagedProcess.h"
#include "Media.h"
#include "PipeWireFixture.h"
#include "PulseAudioFixture.h"
#include "RecorderBus.h"
#include "ScopedEnvironment.h"
#include "SessionBusFixture.h"
#include "TempDir.h"
#include "Wait.h"
#include "XvfbFixture.h"
