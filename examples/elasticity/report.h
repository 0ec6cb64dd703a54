// What a run tells its user: on standard output, as a file for scripts, and when memory runs out.
#pragma once

#include "job.h"

namespace elasticity {

/// Throws InputError when standard output does not take it.
void print_report(const Options& options, const JobReport& report);

/// The same figures as a flat JSON object, one member a line. Throws InputError when the file
/// cannot be written.
void write_json(const Options& options, const JobReport& report);

/// Tells on standard error, under `title`, which request was refused and how memory stood. Needs
/// no memory, like the next.
void print_refusal(const char* title, const Refusal& refusal);

/// The last refusal, which nothing could mend, and how memory stands now.
void print_out_of_memory();

} // namespace elasticity
