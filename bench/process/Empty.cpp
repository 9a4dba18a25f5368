// Copyright the Ordovan authors. SPDX-License-Identifier: Apache-2.0
// A process that does nothing: linked with the four libraries, and with the standard library alone,
// it says what loading them takes.
int main() {}
