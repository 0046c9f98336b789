// Reads the text in an image: ReadText MODEL_FOLDER IMAGE.ppm
#include <TolCompatible/TolCompatible.h>

#include <algorithm>
#include <fstream>
#include <iostream>

int main(int argc, char** argv) try {
  if (argc != 3) throw std::runtime_error("usage: ReadText MODEL_FOLDER IMAGE.ppm");
  std::ifstream file(argv[2], std::ios::binary);
  std::string format, maxValue;
  VsaFrame frame;
  file >> format >> frame.width >> frame.height >> maxValue;
  std::vector<char> pixels(std::size_t{3} * frame.width * frame.height);
  file.ignore().read(pixels.data(), static_cast<std::streamsize>(pixels.size()));
  if (!file || format != "P6") throw std::runtime_error("not a binary PPM image");
  for (std::size_t i = 0; i < pixels.size(); i += 3) std::swap(pixels[i], pixels[i + 2]);
  frame.data = pixels.data();  // blue, green, red; read during a call only

  VsaModelConfig detection;  // must outlive its model, unchanged
  detection.category = "Detect";
  detection.modelName = "PaddleOCR";
  detection.engine = "OpenVINO";
  detection.device = "CPU";
  detection.modelDir = "text";
  detection.modelFile = "detection";
  VsaModelConfig recognition = detection;
  recognition.category = "Track";
  recognition.modelFile = "recognition";
  recognition.classNames = {"paddleocr"};  // the built-in dictionary
  VsaModelContext detector;
  detector.version = kVsaInterfaceVersion;
  detector.config = &detection;
  detector.modelRoot = argv[1];
  VsaModelContext recogniser = detector;
  recogniser.config = &recognition;

  // Models that cut boxes out throw if one has no area. Text regions have four corners instead.
  const auto hasNoArea = [](const VsaObject& object) {
    return object.cornerX2 < 0 && (object.right <= object.left || object.bottom <= object.top);
  };
  bool succeeded =
      VsaModelInit(&detector) && VsaModelInit(&recogniser) && VsaModelDetect(&detector, &frame);
  auto& objects = frame.objects;
  objects.erase(std::remove_if(objects.begin(), objects.end(), hasNoArea), objects.end());
  succeeded = succeeded && VsaModelFeature(&recogniser, &frame);
  for (const VsaObject& object : objects)
    std::cout << object.left << "," << object.top << "\t" << object.text << "\n";
  VsaModelRelease(&recogniser);
  VsaModelRelease(&detector);
  return succeeded ? 0 : 1;
} catch (const std::exception& error) {  // for example the engine's, if a model file is missing
  std::cerr << error.what() << "\n";
  return 1;
}
