// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// org.varlink.service, which every server has: what there is to be called.
#pragma once

#include <live/Varlink.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Live::detail {

// Names and descriptions of all interfaces.
using Described = std::function< std::vector< std::pair< std::string, std::string > >() >;

Varlink::Interface serviceInterface( Varlink::About about, Described described );

} // namespace Live::detail
