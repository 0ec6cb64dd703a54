#include "lists.h"
namespace memtrack {
void add_peak(CLI::App&, Run&) {}
}
