#pragma once
// Readable GoogleTest output for query values (found by argument-dependent lookup).

#include <ostream>

#include "tarvolin/query/Query.h"

namespace tarvolin {

inline void PrintTo(const Term& term, std::ostream* out) { *out << term.description(); }

inline void PrintTo(const Query& query, std::ostream* out) {
  *out << "{and [";
  for (size_t i = 0; i < query.andTerms.size(); ++i) {
    *out << (i ? ", " : "") << query.andTerms[i].description();
  }
  *out << "] or [";
  for (size_t g = 0; g < query.orGroups.size(); ++g) {
    *out << (g ? ", " : "") << "[";
    for (size_t i = 0; i < query.orGroups[g].size(); ++i) {
      *out << (i ? ", " : "") << query.orGroups[g][i].description();
    }
    *out << "]";
  }
  *out << "] raw \"" << query.raw << "\"}";
}

}  // namespace tarvolin
