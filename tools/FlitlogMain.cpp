// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/FlitlogCommand.h>

int main( int count, char ** arguments ) { return Tools::flitlogCommand( count, arguments ); }
