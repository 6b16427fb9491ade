#pragma once

// Registers the compiled-in ":/feed-ca.crt" and ":/release.feed.xz.signed".
// They live in a static library, whose resource initialiser the linker would
// otherwise drop; safe to call from any thread, any number of times.
void initFeedResources();
