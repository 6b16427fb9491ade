#pragma once

// Registers the feed records (and lists of them) with the meta-type system,
// so they can travel through queued signals connected by name as well. Safe
// to call more than once, from any thread.
void registerFeedRecordMetaTypes();
