// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The entities through which agents, aggregation, progression and readers meet.
#pragma once

#include <Stage/AgentConfig.h>
#include <Stage/Config.h>
#include <Stage/EventConfig.h>
#include <Stage/Index.h>
#include <Stage/Log.h>
#include <Stage/Progress.h>
#include <Stage/StageStatus.h>
#include <Stage/Status.h>
