// The settings that all administrators share.
import { application, documentWindow } from "/webman/modules/Utils/utils.js";

application("VEMO.GroupSettings", documentWindow("groupsettings"));
