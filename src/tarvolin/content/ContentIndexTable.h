#pragma once
// The document table of "content.bin": a compact JSON array with one object per document, its
// members "p" (path), "m" (modification time), "o" (offset) and "l" (length), written in that
// order. The reader accepts the members in any order and ignores members it does not know.
// Pure functions: any thread may call them.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/content/ContentIndex.h"

namespace tarvolin::ContentIndexTable {

/// The table's JSON text. Paths that are not valid UTF-8 are written with each invalid sequence
/// replaced by U+FFFD (JSON text is UTF-8). Throws ContentIndexError::unencodableTime for a time
/// that is not finite.
std::string encode(const std::vector<ContentIndex::Document>& documents);

/// The documents of a table, in file order. Offsets and lengths are taken as written (any
/// 64-bit signed value); users of the ranges clamp them. Throws
/// ContentIndexError::malformedTable. Tries decodeCompact first, then decodeGeneral.
std::vector<ContentIndex::Document> decode(std::string_view json);

/// The fast path: only the exact shape `encode` writes (members in order, no white space, no
/// \u escapes). Nothing when the text has any other shape, valid JSON or not; whatever it
/// accepts, decodeGeneral decodes to the same documents.
std::optional<std::vector<ContentIndex::Document>> decodeCompact(std::string_view json);

/// Any JSON text: a general parser, members in any order, unknown members skipped. Throws
/// ContentIndexError::malformedTable.
std::vector<ContentIndex::Document> decodeGeneral(std::string_view json);

}  // namespace tarvolin::ContentIndexTable
