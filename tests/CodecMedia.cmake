# Media for the codec tests, made by the ffmpeg tool in the build folder: H.264
# by libx264 (no B-frames, a delimiter before every picture, parameter sets at
# every key frame), JPEG by mjpeg, and references decoded from those files.
set(CODEC_MEDIA ${PROJECT_BINARY_DIR}/media/codecs)
set(CODEC_MEDIA_FILES)

# codec_media(output format ffmpeg-args...): the file, and its decode as <stem>.yuv in `format`.
function(codec_media output format)
  get_filename_component(stem ${output} NAME_WLE)
  add_custom_command(OUTPUT ${CODEC_MEDIA}/${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CODEC_MEDIA}
    COMMAND ${TQF_FFMPEG} -v error -nostdin -y ${ARGN} ${CODEC_MEDIA}/${output} VERBATIM)
  add_custom_command(OUTPUT ${CODEC_MEDIA}/${stem}.yuv
    COMMAND ${TQF_FFMPEG} -v error -nostdin -y -i ${CODEC_MEDIA}/${output}
            -f rawvideo -pix_fmt ${format} ${CODEC_MEDIA}/${stem}.yuv
    DEPENDS ${CODEC_MEDIA}/${output} VERBATIM)
  set(CODEC_MEDIA_FILES ${CODEC_MEDIA_FILES} ${CODEC_MEDIA}/${output} ${CODEC_MEDIA}/${stem}.yuv PARENT_SCOPE)
endfunction()

set(X264_ARGS -c:v libx264 -bf 0 -g 25 -x264-params aud=1:repeat-headers=1 -pix_fmt yuv420p -f h264)
codec_media(main_352x288.h264 yuv420p -f lavfi -i testsrc2=size=352x288:rate=25 -frames:v 60
            -profile:v main ${X264_ARGS})
# Coded at the output size with aligned planes: decoded in place, without a copy.
codec_media(main_640x480.h264 yuv420p -f lavfi -i testsrc2=size=640x480:rate=25 -frames:v 60
            -profile:v main ${X264_ARGS})
codec_media(baseline_320x240.h264 yuv420p -f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 30
            -profile:v baseline ${X264_ARGS})
# H.265 by libx265 alike (CRA key frames after the first): 8-bit, copied and decoded in place; Main 10.
set(X265_ARGS -frames:v 60 -c:v libx265 -bf 0 -g 25 -x265-params aud=1:repeat-headers=1:scenecut=0:log-level=error -f hevc)
codec_media(hevc_352x288.h265 yuv420p -f lavfi -i testsrc2=size=352x288:rate=25 -pix_fmt yuv420p ${X265_ARGS})
codec_media(hevc_640x480.h265 yuv420p -f lavfi -i testsrc2=size=640x480:rate=25 -pix_fmt yuv420p ${X265_ARGS})
codec_media(hevc10_352x288.h265 yuv420p -f lavfi -i testsrc2=size=352x288:rate=25 -pix_fmt yuv420p10le ${X265_ARGS})
# JPEG references keep the file's full range; an odd height is cut from an even one.
foreach(format 420 422 444)
  codec_media(picture_${format}_176x144.jpg yuvj${format}p -f lavfi -i testsrc2=size=176x144
              -frames:v 1 -c:v mjpeg -pix_fmt yuvj${format}p)
endforeach()
codec_media(picture_422_176x143.jpg yuvj422p -f lavfi -i testsrc2=size=176x144 -frames:v 1
            -vf format=yuvj422p,crop=176:143:0:0 -c:v mjpeg -pix_fmt yuvj422p)

add_custom_target(codec_test_media DEPENDS ${CODEC_MEDIA_FILES})
