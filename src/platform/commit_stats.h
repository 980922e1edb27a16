#pragma once

namespace postiq {

// For measurements: when the environment variable POSTIQ_COMMIT_STATS names a file, writes into
// it how many disk flush rounds the group commit ran and how many messages and files they covered.
void ReportCommitTotals(int rounds, int messages, int files);

} // namespace postiq
