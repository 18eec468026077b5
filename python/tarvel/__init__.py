from ._tarvel import *  # placeholder
