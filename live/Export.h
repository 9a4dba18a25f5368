// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

// Everything is built with hidden visibility, so a class or function is part of libordovan-live's
// interface only when it carries this mark.
#define LIVE_EXPORT __attribute__( ( visibility( "default" ) ) )
