// Every field of the chain's parameter record, by its dotted path
// ("outputGain", "reverb.mix", "vocalChanger.voice1Type"), with its type and
// the range the chain accepts.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "dsp/chain/calvera2.h"

namespace qor::tools {

enum class FieldType { Float, Int32, UInt32, Flag };

struct ParameterField {
  const char* path;
  FieldType type;
  size_t offset;  // into QorCalvera2Parameters
  double min;
  double max;
  const char* meaning;
};

std::span<const ParameterField> parameterFields();
const ParameterField* findParameterField(std::string_view path);
const char* typeName(FieldType type);

// Parses `text` for the field and stores it. Flags take 0/1/on/off/true/false.
// On failure returns false with a one-line reason in `error`.
bool setParameterField(QorCalvera2_API_V1::QorCalvera2Parameters& p, const ParameterField& f,
                       std::string_view text, std::string& error);
std::string formatParameterField(const QorCalvera2_API_V1::QorCalvera2Parameters& p, const ParameterField& f);

// Applies "path=value"; false with a reason naming the field or value.
bool applySetting(QorCalvera2_API_V1::QorCalvera2Parameters& p, std::string_view setting, std::string& error);

// Names the chain field or stage behind a refused record's result code.
std::string describeChainResult(int32_t code);

}  // namespace qor::tools
