#include "pictures/picture.h"

#include <stdexcept>

#include "pictures/formats.h"

namespace pictures {

namespace {

CTensor<float> decode(Input& input) {
  switch (input.peek()) {
    case EOF:
      throw std::runtime_error("is empty");
    case 0x89:
      return decodePng(input);
    case 0xff:
      return decodeJpeg(input);
    case 'P':
      return decodePnm(input);
    default:
      throw std::runtime_error(kNotAPicture);
  }
}

CTensor<float> decodeOrSayWhy(Input& input) {
  try {
    return decode(input);
  } catch (const std::runtime_error&) {
    if (input.failure().empty()) {
      throw;
    }
    throw std::runtime_error(input.failure());
  }
}

}  // namespace

}  // namespace pictures

CTensor<float> readPicture(const std::string& path, std::vector<std::string>* messages,
                           const CTensor<float>* like) {
  try {
    pictures::Input input(path, like);
    CTensor<float> picture = pictures::decodeOrSayWhy(input);
    for (const std::string& note : input.notes) {
      if (messages) {
        messages->push_back(path + ": " + note);
      }
    }
    return picture;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}
