// What the desktop remembers of the user.
import { application, documentWindow } from "/webman/modules/Utils/utils.js";

application("VEMO.Preferences", documentWindow("usersettings"));
