// Descriptions of Protocol Buffers messages, as readers of a file without their definitions need them.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tavi::Mcap {

/// The kinds of fields that are in use, by their numbers in google.protobuf.FieldDescriptorProto.Type.
enum class ProtoKind { Double = 1, Int64 = 3, Int32 = 5, Fixed32 = 7, String = 9, Message = 11, Bytes = 12, Enum = 14 };

/// Whether a field may be absent, or there several times.
enum class ProtoPresence { Plain, Optional, Repeated };

struct ProtoField {
  int number = 0;
  std::string_view name;
  ProtoKind kind{};
  /// Of a message or an enumeration: its full name, as ".foxglove.Color".
  std::string_view type = {};
  ProtoPresence presence = ProtoPresence::Plain;
};

struct ProtoEnum {
  std::string_view name;
  /// In the order of their numbers, from 0 on.
  std::vector<std::string_view> values;
};

/// One message, which has a file of its own.
struct ProtoType {
  std::string_view file;
  std::string_view package;
  std::string_view name;
  std::vector<ProtoField> fields;
  std::vector<ProtoEnum> enums = {};
  /// Files of the messages that its fields are.
  std::vector<std::string_view> imports = {};
};

/// The serialized google.protobuf.FileDescriptorSet of `types`, syntax proto3, each behind those it needs: what MCAP
/// files have as the data of a schema of the encoding "protobuf".
std::string BuildDescriptorSet(std::span<const ProtoType> types);

}  // namespace Tavi::Mcap
