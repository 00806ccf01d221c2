// SPDX-License-Identifier: Apache-2.0
// A library without the functions of a plug-in.
__attribute__((visibility("default"))) int nothingOfUse();
int nothingOfUse() { return 0; }
