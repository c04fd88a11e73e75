"""vexcore: device SDK for millimetre-wave phased-array beamformer boxes."""
