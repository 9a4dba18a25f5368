// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#pragma once

// Everything is built with hidden visibility, so a class or function is part of libordovan's
// interface only when it carries this mark. A class that crosses library borders as an exception
// or as the target of a dynamic cast needs it as well: its type information must be one object
// in the whole process.
#define ORDOVAN_EXPORT __attribute__( ( visibility( "default" ) ) )
