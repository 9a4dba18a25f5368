// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The start-up stage manager: everything that its users need.
#pragma once

#include <Ordovan/ConfigSm.h>
#include <Ordovan/LogSm.h>
#include <Ordovan/Manager.h>
#include <Ordovan/StageEnableSm.h>
#include <Ordovan/StageSm.h>
#include <Ordovan/StatusSm.h>
