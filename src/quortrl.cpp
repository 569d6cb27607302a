#include "quortrl.h"

#include "quordebug.h"

std::array<std::optional<std::string>*, 9> ObjectHeader::fields() {
  return {&object, &action, &data_format, &cmdfile, &filename,
          &ex_flag, &op_text, &vl_text,   &cnt_text};
}

std::array<const std::optional<std::string>*, 9> ObjectHeader::fields() const {
  return {&object, &action, &data_format, &cmdfile, &filename,
          &ex_flag, &op_text, &vl_text,   &cnt_text};
}

std::optional<std::size_t> quor_hdr_read(InBuf buf, ObjectHeader& out) {
  out = ObjectHeader{};
  std::array<std::string_view, kHdrItems.size()> v;
  auto end = buf_read_segment(buf, kHdrTag, v, kHdrItems);
  if (!end) return std::nullopt;
  auto f = out.fields();
  for (std::size_t i = 0; i < f.size(); ++i) *f[i] = std::string(v[i]);
  if (quor_debug()) {
    quor_trace("    object=%s, action=%s, data_format=%s, cmdfile=%s, filename=%s\n",
               out.object->c_str(), out.action->c_str(), out.data_format->c_str(),
               out.cmdfile->c_str(), out.filename->c_str());
  }
  return end;
}

void quor_hdr_write(const ObjectHeader& header, OutBuf& out) {
  std::size_t length_field = buf_begin_segment(out, kHdrTag);
  auto f = header.fields();
  for (std::size_t i = 0; i < f.size(); ++i) {
    if (!f[i]->has_value()) continue;
    buf_add_item(out, kHdrItems[i]);
    buf_add_item(out, **f[i]);
  }
  buf_end_segment(out, length_field);
}

std::optional<std::size_t> quor_trl_read(InBuf buf, Trailer& out) {
  out = Trailer{};
  static constexpr std::array<std::string_view, 1> kNames = {"MD"};
  std::array<std::string_view, 1> v;
  auto end = buf_read_segment(buf, kTrlTag, v, kNames);
  if (!end) return std::nullopt;
  out.more_data = std::string(v[0]);
  if (quor_debug()) quor_trace("    more_data=%s\n", out.more_data->c_str());
  return end;
}

void quor_trl_write(const Trailer& trailer, OutBuf& out) {
  std::size_t length_field = buf_begin_segment(out, kTrlTag);
  if (trailer.more_data) {
    buf_add_item(out, "MD");
    buf_add_item(out, *trailer.more_data);
  }
  buf_end_segment(out, length_field);
  buf_add_item(out, kEndOfData);
}

void quor_trl_put(std::string_view more_data, OutBuf& out) {
  quor_trl_write(Trailer{std::string(more_data)}, out);
}

bool quor_trl_last(InBuf buf) {
  Trailer trailer;
  return !quor_trl_read(buf, trailer) || !trailer.more_data.value_or("N").starts_with('Y');
}
