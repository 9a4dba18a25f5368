// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
#include <tools/Command.h>

int main( int count, char ** arguments ) { return Tools::command( count, arguments ); }
