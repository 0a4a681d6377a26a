// Descriptions of Protocol Buffers messages, as readers of a file without their definitions need them.
#include "Tools/Mcap/ProtoSchema.h"

#include "Tools/Mcap/ProtoMessage.h"

namespace Tavi::Mcap {
namespace {

// Numbers of fields in google/protobuf/descriptor.proto.
namespace SetFields {
constexpr int File = 1;
}
namespace FileFields {
constexpr int Name = 1, Package = 2, Dependency = 3, MessageType = 4, Syntax = 12;
}
namespace MessageFields {
constexpr int Name = 1, Field = 2, EnumType = 4, OneofDecl = 8;
}
namespace FieldFields {
constexpr int Name = 1, Number = 3, Label = 4, Type = 5, TypeName = 6, OneofIndex = 9, Proto3Optional = 17;
}
namespace EnumFields {
constexpr int Name = 1, Value = 2, Number = 2;
}
constexpr int OneofName = 1;
constexpr int OptionalLabel = 1;
constexpr int RepeatedLabel = 3;

/// `oneof`: the group of its own that a field which may be absent has to be in, by the rules of proto3.
ProtoMessage BuildField(const ProtoField& field, int oneof) {
  ProtoMessage proto;
  proto.AddBytes(FieldFields::Name, field.name).AddInteger(FieldFields::Number, field.number);
  proto.AddInteger(FieldFields::Label, field.presence == ProtoPresence::Repeated ? RepeatedLabel : OptionalLabel);
  proto.AddInteger(FieldFields::Type, static_cast<int>(field.kind));
  if (!field.type.empty()) proto.AddBytes(FieldFields::TypeName, field.type);
  if (field.presence == ProtoPresence::Optional) {
    proto.AddInteger(FieldFields::OneofIndex, oneof).AddInteger(FieldFields::Proto3Optional, 1);
  }
  return proto;
}

ProtoMessage BuildEnum(const ProtoEnum& enumeration) {
  ProtoMessage proto;
  proto.AddBytes(EnumFields::Name, enumeration.name);
  int number = 0;
  for (const auto name : enumeration.values) {
    ProtoMessage value;
    value.AddBytes(EnumFields::Name, name).AddInteger(EnumFields::Number, number++);
    proto.AddMessage(EnumFields::Value, value);
  }
  return proto;
}

ProtoMessage BuildType(const ProtoType& type) {
  ProtoMessage proto;
  ProtoMessage oneofs;
  int oneofCount = 0;
  proto.AddBytes(MessageFields::Name, type.name);
  for (const auto& field : type.fields) {
    proto.AddMessage(MessageFields::Field, BuildField(field, oneofCount));
    if (field.presence != ProtoPresence::Optional) continue;
    ProtoMessage oneof;
    oneof.AddBytes(OneofName, "_" + std::string(field.name));
    oneofs.AddMessage(MessageFields::OneofDecl, oneof);
    ++oneofCount;
  }
  for (const auto& enumeration : type.enums) proto.AddMessage(MessageFields::EnumType, BuildEnum(enumeration));
  return proto.Append(oneofs);
}

}  // namespace

std::string BuildDescriptorSet(std::span<const ProtoType> types) {
  ProtoMessage set;
  for (const auto& type : types) {
    ProtoMessage file;
    file.AddBytes(FileFields::Name, type.file).AddBytes(FileFields::Package, type.package);
    for (const auto import : type.imports) file.AddBytes(FileFields::Dependency, import);
    file.AddMessage(FileFields::MessageType, BuildType(type)).AddBytes(FileFields::Syntax, "proto3");
    set.AddMessage(SetFields::File, file);
  }
  return set.Take();
}

}  // namespace Tavi::Mcap
