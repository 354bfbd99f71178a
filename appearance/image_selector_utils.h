/// \file image_selector_utils.h
/// The histories of background pictures: of the login page, of the login page of shared
/// links, and of each user's desktop.
#ifndef ZEM_APPEARANCE_IMAGE_SELECTOR_UTILS_H
#define ZEM_APPEARANCE_IMAGE_SELECTOR_UTILS_H

#include <json/value.h>
#include <webutils/export.h>

#include <string>

/// A history is a ring of eight numbered slots, 0 to 7; the slot that was written last is
/// the one in use. A picture is DIR/TYPEnEXT, its thumbnail DIR/TYPEnthumbEXT:
///
/// | history | directory | type | last slot |
/// |---|---|---|---|
/// | login | /usr/vemo/etc/login_image | the caller's | "login_TYPE_index" in /etc/vemoinfo.conf |
/// | login of shared links | /usr/vemo/etc/fbsharing_login_image | the caller's |
/// "fbsharing_login_TYPE_index" there |
/// | desktop | the user's preference directory | none | "Desktop"/"wallpaper"/"index" in
/// "usersettings" there |
///
/// Without a stored slot the last one is 0, so the first addition goes to slot 1.
///
/// **Pictures of strangers.** An addition runs /usr/bin/convert, which finds out from the
/// content what a file is, and can do far more than read pictures. Give it only what was
/// looked at before, under an extension that fits the content, and start the program's
/// work with limits on memory, time and network: children inherit them. The appliance's
/// policy file of ImageMagick allows JPEG, PNG, GIF and BMP and nothing else.
///
/// **Callers that run at the same time.** An addition reads the last slot, writes the next
/// one, and stores it; whoever adds to one history from several processes holds a lock
/// around that.
///
/// Texts and paths that a caller gives are used as they are: choose `type` and the source's
/// path in the program, never from a request. Failures are logged as "image_selector_utils".
class ZEM_EXPORT ImageSelectorUtils {
 public:
  /// Whether the extension, with its dot, is one of ".jpg", ".jpeg", ".jpe", ".bmp", ".gif"
  /// and ".png", in any case.
  static bool CheckFileType(const char* extension);
  /// Whether the file is there and holds at most 1 MiB.
  static bool CheckFileSize(const char* path);
  /// Whether the file is there and holds more than 2 MiB.
  static bool IsImageNeededCompress(const char* path);
  /// Whether the picture has an alpha channel, also one that says "opaque" everywhere. false,
  /// too, when the image tool cannot be run or understands no picture.
  static bool IsImageTransparent(const char* path);

  /// \name Login page, and login page of shared links
  /// @{

  /// The last slot; 0 when none is stored.
  static int GetLoginIndexKey(const char* type);
  static int GetFileSharingLoginIndexKey(const char* type);

  /// Stores the last slot: 0 for a negative one, else its three low bits.
  static bool SetLoginIndexKey(const char* type, int slot);
  static bool SetFileSharingLoginIndexKey(const char* type, int slot);

  /// Finds the picture of a slot; a negative one counts as 0. A slot may hold files of
  /// several extensions (a picture that was compressed stays beside): the first in the order
  /// of `CheckFileType` counts.
  /// \param extension gets the extension, cut to `size` bytes, the NUL byte counted.
  /// \return whether there is one.
  static bool GetLoginFileExtByIndex(int slot, const char* type, char* extension, int size);
  static bool GetFileSharingLoginFileExtByIndex(int slot, const char* type, char* extension,
                                                int size);

  /// Removes what the slot holds, thumbnails too. What cannot be removed stays, silently.
  static void RemoveLoginHistoryIfExist(const char* type, int slot);
  static void RemoveFileSharingLoginHistoryIfExist(const char* type, int slot);

  /// Empties the slot after the last one, and copies the picture into it: one above 2 MiB
  /// becomes a JPEG when it is opaque and no ".gif", and each but a ".gif" gets a thumbnail,
  /// of at most 160 by 160.
  ///
  /// \param extension of the picture, with its dot; used in lower case, at most 7 bytes.
  /// \param outImage gets the path of the picture.
  /// \param outThumb gets the path of its thumbnail: that of the picture for a ".gif". It
  ///     has the caller's extension, also when the picture has become a JPEG. The file is
  ///     missing when the tool could not make it.
  /// \param imageSize, thumbSize bytes of the two. A path that would be cut is not used: it
  ///     would name another file.
  /// \return true: the picture is in its slot, which is the last one now. false: the slot is
  ///     not the last one, and holds nothing that counts. A copy that ends early, for want
  ///     of room, counts as made: compare the sizes.
  static bool AddLoginHistory(const char* type, const char* source, const char* extension,
                              char* outImage, char* outThumb, int imageSize, int thumbSize);
  static bool AddFileSharingLoginHistory(const char* type, const char* source,
                                         const char* extension, char* outImage, char* outThumb,
                                         int imageSize, int thumbSize);
  /// @}

  /// \name Desktop
  /// As above, for the user's desktop; thumbnails are of at most 120 by 120. The process
  /// must be able to write the user's preference directory, and to become root for the
  /// settings.
  /// @{

  /// Reads the user's settings; an empty object when there are none that can be read.
  /// \return false, and `settings` as it was, for a user without preference directory.
  static bool loadUserSettings(const std::string& user, Json::Value& settings);
  /// Stores the user's settings, as root where the process may.
  static bool saveUserSettings(const std::string& user, const Json::Value& settings);

  /// The last slot; 0 when none is stored, or no integer.
  static int GetDesktopIndexKey(const std::string& user);
  /// Stores the last slot: 0 for a negative one, else all of it. Other settings are kept.
  static bool SetDesktopIndexKey(const std::string& user, int slot);
  static bool GetDesktopFileExtByIndex(const std::string& user, int slot, char* extension,
                                       int size);
  static void RemoveDesktopHistoryIfExist(const std::string& user, int slot);
  static bool AddDesktopHistory(const std::string& user, const char* source, const char* extension,
                                char* outImage, char* outThumb, int imageSize, int thumbSize);
  /// @}

 private:
  friend class ImageSelectorUtilsPeer;

  static bool GetFileExtByIndex(const char* directory, int slot, const char* type, char* extension,
                                int size);
  static void RemoveHistoryIfExist(const char* directory, const char* type, int slot);
  static bool AddHistory(const char* directory, const char* type, const char* source,
                         const char* extension, char* outImage, char* outThumb, int imageSize,
                         int thumbSize, int slot, int edge);
};

#endif  // ZEM_APPEARANCE_IMAGE_SELECTOR_UTILS_H
