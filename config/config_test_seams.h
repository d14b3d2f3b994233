// The configuration layer's test seam: what only tests set. A test takes its own directory as
// the installation's root, so that its setting file and resource libraries are found there.
#pragma once

// Replaces the cached root with root (bounded, NUL-terminated), as a test or a host that knows
// its installation does; null forgets it, so the next GetInstallRoot computes it again.
void OverrideInstallRoot(const char* root);
