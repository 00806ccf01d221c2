// SPDX-License-Identifier: Apache-2.0
// Stands in front of a function that a module exports.
#pragma once

#ifdef _WIN32
#define ZEM_MODULE_EXPORT __declspec(dllexport)
#else
#define ZEM_MODULE_EXPORT __attribute__((visibility("default")))
#endif
