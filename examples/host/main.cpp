// Reads the text of a picture: ReadText MODEL_FOLDER PICTURE.ppm
#include <TolCompatible/TolCompatible.h>

#include <fstream>
#include <iostream>

int main(int argc, char** argv) try {
  if (argc != 3) throw std::runtime_error("usage: ReadText MODEL_FOLDER PICTURE.ppm");
  std::ifstream file(argv[2], std::ios::binary);
  std::string magic, most;
  VsaFrame frame;
  file >> magic >> frame.width >> frame.height >> most;
  std::vector<char> pixels(std::size_t{3} * frame.width * frame.height);
  file.get();
  file.read(pixels.data(), static_cast<std::streamsize>(pixels.size()));
  if (!file || magic != "P6") throw std::runtime_error("no P6 picture");
  for (std::size_t i = 0; i < pixels.size(); i += 3) std::swap(pixels[i], pixels[i + 2]);
  frame.data = pixels.data();  // blue, green, red; only read, and only during a call

  VsaModelConfig find, read;  // must outlive their models
  VsaModelContext finder, reader;
  find.engine = read.engine = "OpenVINO";
  find.device = read.device = "CPU";
  find.modelName = read.modelName = "PaddleOCR";
  find.category = "Detect", find.modelFile = "detection", find.modelDir = "text";
  read.category = "Track", read.modelFile = "recognition", read.modelDir = "text";
  read.classNames = {"paddleocr"};  // the built-in dictionary
  read.inputWidth = 640, read.inputHeight = 48;
  finder.config = &find, reader.config = &read;
  finder.modelRoot = reader.modelRoot = argv[1];
  finder.version = reader.version = kVsaInterfaceVersion;
  const bool done = VsaModelInit(&finder) && VsaModelInit(&reader) &&
                    VsaModelDetect(&finder, &frame) && VsaModelFeature(&reader, &frame);
  for (const VsaObject& o : frame.objects)
    std::cout << o.left << "," << o.top << "\t" << o.text << "\n";
  VsaModelRelease(&reader), VsaModelRelease(&finder);
  return done ? 0 : 1;
} catch (const std::exception& error) {  // the engine's, for a missing or broken model file
  return std::cerr << error.what() << "\n", 1;
}
