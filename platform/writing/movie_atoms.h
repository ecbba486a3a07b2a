#pragma once

#include <cstdint>
#include <vector>

#include <vesk/four_char_code.h>
#include "platform/writing/atom_writer.h"

namespace vesk {

// The atoms that are both written and read back (by recovery). `transfer` names the fields in their
// order; with an AtomWriter it writes them, with an AtomReader it fills them in. Clauses are those of
// ISO/IEC 14496-12, whose layouts the QuickTime file format shares.

/// Version 1 has room for times of 64 bits; version 0 is read everywhere and used where it will do.
inline uint8_t versionFor(uint64_t a, uint64_t b) {
  return a > 0xFFFFFFFF || b > 0xFFFFFFFF ? 1 : 0;
}

/// The transformation that changes nothing (6.2.2).
template <class Atoms>
void transferUnityMatrix(Atoms& atoms) {
  for (const uint32_t value : {0x00010000U, 0U, 0U, 0U, 0x00010000U, 0U, 0U, 0U, 0x40000000U}) atoms.constant32(value);
}

/// 8.2.2
struct MovieHeaderAtom {
  static constexpr uint32_t kType = fourCharCode("mvhd");
  uint64_t creationTime = 0;  ///< seconds since 1904-01-01 UTC
  uint32_t timescale = 0;     ///< units a second
  uint64_t duration = 0;
  uint32_t nextTrack = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = versionFor(creationTime, duration);
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.sized(version, creationTime);
    atoms.sized(version, creationTime);  // of the last change
    atoms.u32(timescale);
    atoms.sized(version, duration);
    atoms.constant32(0x00010000);  // rate 1
    atoms.constant16(0x0100);      // volume 1
    atoms.zeros(10);
    transferUnityMatrix(atoms);
    atoms.zeros(24);  // preview, poster, selection, current time
    atoms.u32(nextTrack);
  }
};

/// 8.3.2
struct TrackHeaderAtom {
  static constexpr uint32_t kType = fourCharCode("tkhd");
  uint64_t creationTime = 0;
  uint32_t track = 0;
  uint64_t duration = 0;  ///< of all edits, in the movie's scale
  uint16_t volume = 0;    ///< 8.8
  uint32_t width = 0;     ///< 16.16, as shown
  uint32_t height = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = versionFor(creationTime, duration);
    uint32_t flags = 0xF;  // enabled, in the movie, its preview and its poster
    atoms.versionAndFlags(version, flags);
    atoms.sized(version, creationTime);
    atoms.sized(version, creationTime);
    atoms.u32(track);
    atoms.zeros(4);
    atoms.sized(version, duration);
    atoms.zeros(8);
    atoms.zeros(4);  // layer, alternate group
    atoms.u16(volume);
    atoms.zeros(2);
    transferUnityMatrix(atoms);
    atoms.u32(width);
    atoms.u32(height);
  }
};

/// 8.6.6
struct EditListAtom {
  static constexpr uint32_t kType = fourCharCode("elst");
  struct Edit {
    uint64_t duration = 0;  ///< movie's scale
    int64_t mediaTime = 0;  ///< track's scale; -1 for an empty edit
  };
  std::vector<Edit> edits;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 0;
    for (const Edit& edit : edits) {
      if (edit.duration > 0x7FFFFFFF || edit.mediaTime > 0x7FFFFFFF) version = 1;
    }
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.count(edits, version == 0 ? 12 : 20);
    for (Edit& edit : edits) {
      atoms.sized(version, edit.duration);
      atoms.sized(version, edit.mediaTime);
      atoms.constant32(0x00010000);  // rate 1
    }
  }
};

/// 8.4.2
struct MediaHeaderAtom {
  static constexpr uint32_t kType = fourCharCode("mdhd");
  uint64_t creationTime = 0;
  uint32_t timescale = 0;
  uint64_t duration = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = versionFor(creationTime, duration);
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.sized(version, creationTime);
    atoms.sized(version, creationTime);
    atoms.u32(timescale);
    atoms.sized(version, duration);
    atoms.constant16(0x55C4);  // language: not determined
    atoms.constant16(0);       // quality
  }
};

/// 8.4.3; QuickTime gives the type of the component before its subtype.
struct HandlerAtom {
  static constexpr uint32_t kType = fourCharCode("hdlr");
  uint32_t componentType = 0;
  uint32_t subtype = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 0;
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.u32(componentType);
    atoms.u32(subtype);
    atoms.zeros(12);
    // The name follows: a length byte in QuickTime, zero-terminated text elsewhere. No name is both.
    atoms.zeros(1);
  }
};

/// 8.8.3
struct TrackExtendsAtom {
  static constexpr uint32_t kType = fourCharCode("trex");
  uint32_t track = 0;
  uint32_t duration = 0;
  uint32_t size = 0;
  uint32_t sampleFlags = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 0;
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.u32(track);
    atoms.constant32(1);  // sample description
    atoms.u32(duration);
    atoms.u32(size);
    atoms.u32(sampleFlags);
  }
};

/// 8.8.5
struct FragmentHeaderAtom {
  static constexpr uint32_t kType = fourCharCode("mfhd");
  uint32_t sequence = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 0;
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.u32(sequence);
  }
};

/// 8.8.7; only the form we write: offsets count from the fragment, defaults are those of `trex`.
struct TrackFragmentHeaderAtom {
  static constexpr uint32_t kType = fourCharCode("tfhd");
  static constexpr uint32_t kDefaultBaseIsFragment = 0x020000;
  uint32_t flags = kDefaultBaseIsFragment;
  uint32_t track = 0;

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 0;
    atoms.versionAndFlags(version, flags);
    atoms.u32(track);
  }
};

/// 8.8.12
struct TrackFragmentTimeAtom {
  static constexpr uint32_t kType = fourCharCode("tfdt");
  uint64_t time = 0;  ///< of the first sample, track's scale

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 1;
    uint32_t flags = 0;
    atoms.versionAndFlags(version, flags);
    atoms.sized(version, time);
  }
};

/// 8.8.8; only the form we write: the size of every sample is given.
struct TrackRunAtom {
  static constexpr uint32_t kType = fourCharCode("trun");
  static constexpr uint32_t kDataOffset = 0x1;
  static constexpr uint32_t kDurations = 0x100;
  static constexpr uint32_t kSizes = 0x200;
  static constexpr uint32_t kSampleFlags = 0x400;

  /// Sample flags (8.8.3.1): depends on nothing; or depends on others and is no sync sample.
  static constexpr uint32_t kIsSync = 0x02000000;
  static constexpr uint32_t kIsNotSync = 0x01010000;

  struct Sample {
    uint32_t duration = 0;
    uint32_t size = 0;
    uint32_t flags = 0;
  };
  uint32_t flags = kDataOffset | kSizes;
  int32_t dataOffset = 0;  ///< from the fragment's start
  std::vector<Sample> samples;

  bool has(uint32_t flag) const { return (flags & flag) != 0; }

  template <class Atoms>
  void transfer(Atoms& atoms) {
    uint8_t version = 0;
    atoms.versionAndFlags(version, flags);
    uint32_t count = static_cast<uint32_t>(samples.size());
    atoms.u32(count);
    atoms.i32(dataOffset);
    if constexpr (Atoms::kReads) {
      constexpr uint32_t kKnown = kDataOffset | kDurations | kSizes | kSampleFlags;
      const size_t each = 4 + (has(kDurations) ? 4 : 0) + (has(kSampleFlags) ? 4 : 0);
      if ((flags & ~kKnown) != 0 || !has(kDataOffset) || !has(kSizes) || count > atoms.remaining() / each) {
        atoms.fail();  // not a run of ours
        return;
      }
      samples.resize(count);
    }
    for (Sample& sample : samples) {
      if (has(kDurations)) atoms.u32(sample.duration);
      atoms.u32(sample.size);
      if (has(kSampleFlags)) atoms.u32(sample.flags);
    }
  }
};

/// Ours alone, a `free` atom between `moof` and `mdat`: what the fragment's bytes add up to, so that recovery knows
/// what of a fragment that was not on the disk yet when the power went has got there.
struct FragmentSumsAtom {
  static constexpr uint32_t kType = fourCharCode("free");
  static constexpr uint32_t kMark = fourCharCode("sums");
  /// Each run of samples is added up in pieces of so many bytes, and what is left of it.
  static constexpr uint32_t kPiece = 65536;

  uint32_t mark = kMark;
  uint64_t header = 0;           ///< of the `moof` without its size and type
  std::vector<uint64_t> pieces;  ///< of the samples, in the order in which they lie in the file

  template <class Atoms>
  void transfer(Atoms& atoms) {
    atoms.u32(mark);
    atoms.u64(header);
    atoms.count(pieces, sizeof(uint64_t));
    for (uint64_t& piece : pieces) atoms.u64(piece);
  }
};

/// Writes an atom whose fields `T::transfer` describes.
template <class T>
void writeAtom(AtomWriter& writer, T atom) {
  const auto scope = writer.atom(T::kType);
  atom.transfer(writer);
}

}  // namespace vesk
