// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// The reactive entity framework: everything that its users need.
#pragma once

#include <Kiv/Access.h>
#include <Kiv/Activity.h>
#include <Kiv/Attribute.h>
#include <Kiv/Clock.h>
#include <Kiv/Dir.h>
#include <Kiv/Entity.h>
#include <Kiv/Exception.h>
#include <Kiv/GenericIf.h>
#include <Kiv/HashMap.h>
#include <Kiv/Introspection.h>
#include <Kiv/Log.h>
#include <Kiv/Memory.h>
#include <Kiv/NewReactor.h>
#include <Kiv/Notifiee.h>
#include <Kiv/Owned.h>
#include <Kiv/Printable.h>
#include <Kiv/Ptr.h>
#include <Kiv/Reactor.h>
#include <Kiv/Text.h>
#include <Kiv/Trace.h>
#include <Kiv/Type.h>
#include <Kiv/Value.h>
