# An image that runs vsa, with the engines, as a user without privileges:
#   docker build -t vsa .
#   docker run --rm --user "$(id -u)" -v "$PWD:/data" vsa run pipeline.json page.png --output out
# The image contains no models: mount them with the pipeline file.
FROM debian:12-slim AS build
WORKDIR /src
# The set-up downloads the engines. It has a layer of its own, so that a change of the sources does not repeat it.
COPY scripts scripts
# hadolint ignore=DL3008 # versions are not pinned, so that the image gets Debian's security updates
RUN apt-get update \
    && scripts/setup \
    && apt-get install -y --no-install-recommends file \
    && rm -rf /var/lib/apt/lists/*
COPY . .
RUN cmake --preset package && cmake --build --preset package && cpack --preset package -G DEB

FROM debian:12-slim
COPY --from=build /src/build/package/*.deb /tmp/packages/
# tini is process 1, because the kernel does not apply the default actions of signals to that process. It also waits
# for the processes of ffmpeg.
# hadolint ignore=DL3008
RUN apt-get update \
    && apt-get install -y --no-install-recommends \
        /tmp/packages/libtolcompatiblelib0_*.deb /tmp/packages/tolcompatiblelib-tools_*.deb \
        ca-certificates ffmpeg fonts-wqy-microhei tini \
    && rm -rf /var/lib/apt/lists/* /tmp/packages \
    && useradd --create-home --uid 10001 vsa
USER 10001
WORKDIR /data
ENTRYPOINT ["tini", "--", "vsa"]
CMD ["--help"]
