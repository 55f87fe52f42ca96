// Parses a query: enough to need the installed headers, the archives of the query, index and
// platform modules and the Unicode and regular-expression libraries they link.
#include <cstdio>

#include "tarvolin/query/QueryParser.h"

int main() {
  tarvolin::Query query = tarvolin::QueryParser::parse("ext:txt notes");
  std::printf("terms: %zu\n", query.andTerms.size());
  return query.andTerms.size() == 2 ? 0 : 1;
}
