#pragma once

// The library's version, "major.minor.patch".
const char* meridbspVersion();
