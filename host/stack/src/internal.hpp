// Reset hooks the stack's services give to boot()/halt().
#pragma once

namespace marlix::stack::detail {

void repository_reset();  // empty tree, every handle and notifier forgotten
void logger_reset();
void verbs_core_reset();  // no providers

}  // namespace marlix::stack::detail
