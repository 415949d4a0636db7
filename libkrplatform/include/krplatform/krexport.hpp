#pragma once

/// Marks what a shared library of this project exports; everything else is hidden.
#define KR_EXPORT __attribute__((visibility("default")))
