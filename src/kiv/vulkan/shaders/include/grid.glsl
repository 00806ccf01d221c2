// SPDX-License-Identifier: Apache-2.0
// Workgroups in two dimensions, since a device may take no more than 65535 in one:
// counted along x first. A grid may hold more than are needed.
uint workgroupIndex() { return gl_WorkGroupID.y * gl_NumWorkGroups.x + gl_WorkGroupID.x; }

// Neighbouring invocations get neighbouring numbers, so what they load and store
// is contiguous. A grid must hold fewer than 2^32 invocations. The including shader
// declares kLocal: gl_WorkGroupSize is 1 for the compiler until the size is declared.
uint invocationIndex() { return workgroupIndex() * kLocal + gl_LocalInvocationID.x; }
