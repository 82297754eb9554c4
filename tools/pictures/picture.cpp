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

template <class Decoder>
CTensor<float> decodeOrSayWhy(Input& input, const Decoder& decoder) {
  try {
    return decoder(input);
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
    CTensor<float> picture = pictures::decodeOrSayWhy(input, pictures::decode);
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

bool readNextPnm(std::FILE* stream, const std::string& name, CTensor<float>& picture) {
  try {
    pictures::Input input(stream);
    const int first = input.peek();
    if (first == EOF && input.failure().empty()) return false;
    picture = pictures::decodeOrSayWhy(input, [first](pictures::Input& frames) {
      if (first != 'P') throw std::runtime_error("is no stream of PGM or PPM pictures");
      return pictures::decodePnm(frames, true);
    });
    return true;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(name + ": " + error.what());
  }
}
