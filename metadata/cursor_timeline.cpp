#include "metadata/cursor_timeline.h"

#include <array>
#include <unordered_map>

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/sha.h>
}

namespace ov {
namespace {

using T = OVCursorType;

// Theme names (freedesktop cursor spec names, then the X core names that
// themes alias them to) to the types the platform's cursors have.
const std::unordered_map<std::string_view, OVCursorType>& aliasTable() {
    static const std::unordered_map<std::string_view, OVCursorType> table{
        {"default", T::arrow}, {"left_ptr", T::arrow}, {"arrow", T::arrow}, {"top_left_arrow", T::arrow},
        {"text", T::iBeam}, {"xterm", T::iBeam}, {"ibeam", T::iBeam},
        {"vertical-text", T::iBeamCursorForVerticalLayout},
        {"crosshair", T::crosshair}, {"cross", T::crosshair}, {"tcross", T::crosshair},
        {"pointer", T::pointingHand}, {"hand2", T::pointingHand}, {"pointing_hand", T::pointingHand},
        {"hand", T::pointingHand},
        {"grab", T::openHand}, {"openhand", T::openHand}, {"hand1", T::openHand},
        {"grabbing", T::closedHand}, {"closedhand", T::closedHand}, {"dnd-move", T::closedHand},
        {"not-allowed", T::operationNotAllowed}, {"no-drop", T::operationNotAllowed},
        {"crossed_circle", T::operationNotAllowed}, {"forbidden", T::operationNotAllowed},
        {"circle", T::operationNotAllowed},
        {"alias", T::dragLink}, {"dnd-link", T::dragLink}, {"link", T::dragLink},
        {"copy", T::dragCopy}, {"dnd-copy", T::dragCopy},
        {"context-menu", T::contextualMenu},
        {"col-resize", T::columnResize}, {"split_h", T::columnResize},
        {"row-resize", T::rowResize}, {"split_v", T::rowResize},
        {"ew-resize", T::resizeLeftRight}, {"sb_h_double_arrow", T::resizeLeftRight},
        {"h_double_arrow", T::resizeLeftRight}, {"size_hor", T::resizeLeftRight},
        {"ns-resize", T::resizeUpDown}, {"sb_v_double_arrow", T::resizeUpDown}, {"v_double_arrow", T::resizeUpDown},
        {"size_ver", T::resizeUpDown},
        {"w-resize", T::windowResizeWest}, {"left_side", T::windowResizeWest},
        {"e-resize", T::windowResizeEast}, {"right_side", T::windowResizeEast},
        {"n-resize", T::windowResizeNorth}, {"top_side", T::windowResizeNorth},
        {"s-resize", T::windowResizeSouth}, {"bottom_side", T::windowResizeSouth},
        {"ne-resize", T::windowResizeNorthEast}, {"nw-resize", T::windowResizeNorthWest},
        {"se-resize", T::windowResizeSouthEast}, {"sw-resize", T::windowResizeSouthWest},
        {"nesw-resize", T::windowResizeNorthEastSouthWest}, {"fd_double_arrow", T::windowResizeNorthEastSouthWest},
        {"size_bdiag", T::windowResizeNorthEastSouthWest},
        {"nwse-resize", T::windowResizeNorthWestSouthEast}, {"bd_double_arrow", T::windowResizeNorthWestSouthEast},
        {"size_fdiag", T::windowResizeNorthWestSouthEast},
        {"top_left_corner", T::topLeftResize}, {"top_right_corner", T::topRightResize},
        {"bottom_left_corner", T::bottomLeftResize}, {"bottom_right_corner", T::bottomRightResize},
        {"progress", T::busyButClickable}, {"left_ptr_watch", T::busyButClickable}, {"half-busy", T::busyButClickable},
        {"help", T::help}, {"question_arrow", T::help}, {"left_ptr_help", T::help}, {"whats_this", T::help},
        {"zoom-in", T::zoomIn}, {"zoom-out", T::zoomOut},
    };
    return table;
}

}  // namespace

std::optional<OVCursorType> cursorTypeForName(std::string_view name) {
    const auto& table = aliasTable();
    if (auto it = table.find(name); it != table.end()) return it->second;
    return std::nullopt;
}

std::string sha1Hex(std::string_view bytes) {
    struct AVSHA* sha = av_sha_alloc();
    av_sha_init(sha, 160);
    av_sha_update(sha, reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<unsigned>(bytes.size()));
    std::array<uint8_t, 20> digest{};
    av_sha_final(sha, digest.data());
    av_free(sha);
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    for (auto b : digest) {
        out += hex[b >> 4];
        out += hex[b & 0xF];
    }
    return out;
}

std::vector<Cursor> Cursor::allSystemCursors() {
    // The theme's files are not read: a themed cursor is known by the name
    // the X server reports with its picture, which covers the same cursors.
    return {};
}

CursorTimeline::CursorTimeline(const Logger& logger) : logger_(logger.with("CursorTimeline")) {}

std::vector<CursorTimeline::Duplicate> CursorTimeline::preload(const std::vector<Cursor>& cursors) {
    std::unique_lock lock(mutex_);
    std::vector<Duplicate> duplicates;
    for (const auto& cursor : cursors) {
        auto& byPicture = cursorMap_[cursor.shape];
        if (auto it = byPicture.find(cursor.tiffRepresentation); it != byPicture.end()) {
            duplicates.push_back({cursor, it->second});
            continue;
        }
        byPicture.emplace(cursor.tiffRepresentation, cursor);
    }
    return duplicates;
}

std::optional<std::string> CursorTimeline::capture(const platform::NSCursor& nsCursor, const platform::CMTime& time,
                                                   const platform::PointerState& pointer) {
    bool added = false;
    std::optional<std::string> answer;
    {
        std::unique_lock lock(mutex_);
        const Cursor::Shape shape{nsCursor.hotSpot, nsCursor.size};
        const auto finish = [&] {
            lastCaptureCall_ = {shape, nsCursor.serial, time, pointer.location};
        };
        // A still cursor costs no picture work. The serial changes with every
        // new picture, so a change at a still pointer is seen at once.
        if (shape == lastCaptureCall_.cursorShape && nsCursor.serial == lastCaptureCall_.serial &&
            pointer.location == lastCaptureCall_.location) {
            if (!cursorTimeline_.empty()) answer = cursorTimeline_.back().cursorId;
            finish();
            return answer;
        }
        if (!nsCursor.image || nsCursor.image->empty()) {
            unsafeCursorsMissingTiffRepresentation_.insert(shape);
            finish();
            return std::nullopt;
        }
        auto& byPicture = cursorMap_[shape];
        auto it = byPicture.find(*nsCursor.image);
        if (it == byPicture.end()) {
            Cursor cursor;
            cursor.shape = shape;
            cursor.tiffRepresentation = *nsCursor.image;
            const auto named = nsCursor.name ? cursorTypeForName(*nsCursor.name) : std::nullopt;
            if (named) {
                cursor.type = *named;
                cursor.id = std::string(rawValue(*named));
            } else {
                cursor.type = OVCursorType::custom;
                cursor.id = sha1Hex(*nsCursor.image);
            }
            it = byPicture.emplace(*nsCursor.image, std::move(cursor)).first;
        }
        const Cursor& cursor = it->second;
        if (cursorTimeline_.empty() || cursorTimeline_.back().cursorId != cursor.id) {
            cursorTimeline_.push_back({time, pointer.location, std::nullopt, pointer.flags, cursor.id, cursor.type});
            added = true;
        }
        answer = cursor.id;
        finish();
    }
    if (added) prepareAdapter_.append(std::monostate{});
    return answer;
}

CursorTimeline::QueryResult CursorTimeline::cursor(const platform::CMTime& time) const {
    std::shared_lock lock(mutex_);
    if (cursorTimeline_.empty()) return NoCursorsCaptured{};
    if (time <= lastCaptureCall_.timestamp) {
        for (auto it = cursorTimeline_.rbegin(); it != cursorTimeline_.rend(); ++it)
            if (it->timestamp <= time) return Found{*it};
        return BeforeFirstCapture{cursorTimeline_.front()};
    }
    return AfterLastCapture{cursorTimeline_.back(), lastCaptureCall_.timestamp};
}

std::vector<CursorTimeline::Observation> CursorTimeline::observations(const platform::CMTime& after,
                                                                      const platform::CMTime& untilIncluding) const {
    std::shared_lock lock(mutex_);
    std::vector<Observation> out;
    for (const auto& o : cursorTimeline_)
        if (after < o.timestamp && o.timestamp <= untilIncluding) out.push_back(o);
    return out;
}

std::set<Cursor::Shape> CursorTimeline::unsafeCursorsMissingTiffRepresentation() const {
    std::shared_lock lock(mutex_);
    return unsafeCursorsMissingTiffRepresentation_;
}

std::vector<CursorTimeline::Observation> CursorTimeline::allObservations() const {
    std::shared_lock lock(mutex_);
    return cursorTimeline_;
}

}  // namespace ov
