<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en">
<context>
    <name>Localizable</name>
    <message>
        <source>OK_BUTTON</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>PUBLISH</source>
        <translation>Publish</translation>
    </message>
    <message>
        <source>CANCEL</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>PUBLISH_VIDEO</source>
        <translation>Publish Video</translation>
    </message>
    <message>
        <source>TITLE</source>
        <translation>Title</translation>
    </message>
    <message>
        <source>DESCRIPTION</source>
        <translation>Description</translation>
    </message>
    <message>
        <source>CATEGORY</source>
        <translation>Category</translation>
    </message>
    <message>
        <source>TAGS</source>
        <translation>Tags</translation>
    </message>
    <message>
        <source>NEW_TAG</source>
        <translation>New tag</translation>
    </message>
    <message>
        <source>HD</source>
        <translation>HD</translation>
    </message>
    <message>
        <source>STANDARD_DEFINITION</source>
        <translation>Standard</translation>
    </message>
    <message>
        <source>SIZE_FORMAT_PARENS</source>
        <translation>(%1)</translation>
    </message>
    <message>
        <source>SIZE_OR_MORE_FORMAT_PARENS</source>
        <translation>(%1 or more)</translation>
    </message>
    <message>
        <source>ACCOUNT_NAME_FORMAT</source>
        <translation>Signed in as %1</translation>
    </message>
    <message>
        <source>ACCOUNT_BLANK</source>
        <translation>Not signed in</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_TITLE</source>
        <translation>Sign-In Failed</translation>
    </message>
    <message>
        <source>AUTHENTICATION_FAILED_BODY</source>
        <translation>Could not sign in. Please check the user name, the password and the connection, then try again.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>Terms of Use</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN_TITLE</source>
        <translation>Sign in to %1</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_SIGN_IN_MESSAGE</source>
        <translation>You sign in on the service's own page in your web browser.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_SIGN_IN_MESSAGE</source>
        <translation>You sign in on another device, such as your phone, with a code shown next.</translation>
    </message>
    <message>
        <source>OAUTH2_PASSWORD_SIGN_IN_MESSAGE</source>
        <translation>Enter your user name and password.</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE_IN_BROWSER</source>
        <translation>Continue in Browser</translation>
    </message>
    <message>
        <source>OAUTH2_CONTINUE</source>
        <translation>Continue</translation>
    </message>
    <message>
        <source>OAUTH2_SIGN_IN</source>
        <translation>Sign In</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_MESSAGE</source>
        <translation>On another device, open %1 and enter the code %2, or scan the QR code.</translation>
    </message>
    <message>
        <source>OAUTH2_DEVICE_QR_DESCRIPTION</source>
        <translation>QR code of the sign-in address</translation>
    </message>
    <message>
        <source>OAUTH2_SECOND_FACTOR_MESSAGE</source>
        <translation>Enter the code from your authenticator app.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_PASSWORD</source>
        <translation>The service did not accept this user name and password.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_SECOND_FACTOR</source>
        <translation>The service did not accept the code from your authenticator app.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_NO_SECOND_FACTOR</source>
        <translation>The sign-in stopped because no code from your authenticator app was entered.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_REFUSED</source>
        <translation>The service refused the sign-in.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_UNREACHABLE</source>
        <translation>The service could not be reached or did not answer. Please check the connection.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_TIMED_OUT</source>
        <translation>The last sign-in was not completed in time.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_CANCELLED</source>
        <translation>The last sign-in was cancelled.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_EXPIRED</source>
        <translation>The service ended your sign-in. Please sign in again.</translation>
    </message>
    <message>
        <source>OAUTH2_FAILED_OTHER</source>
        <translation>The last sign-in did not succeed.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_DONE</source>
        <translation>You can return to the application.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_FAILED</source>
        <translation>The sign-in did not succeed. You can return to the application.</translation>
    </message>
    <message>
        <source>OAUTH2_BROWSER_EXPIRED</source>
        <translation>This sign-in has already ended. You can return to the application.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SIGN_IN_AGAIN</source>
        <translation>The service no longer accepts your sign-in. Please sign in again and publish once more.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_QUOTA_OR_RATE_LIMIT</source>
        <translation>The service has reached a limit for your account. Please try again later.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_FIELD</source>
        <translation>The service did not accept the field “%1”. Please correct it and publish again.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_INVALID_REQUEST</source>
        <translation>The service did not accept what was sent. Please check the title, description and tags, then publish again.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_TOO_LARGE</source>
        <translation>The video is larger than the service accepts. Please choose a shorter clip or a lower quality.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_FILE_CHANGED_OR_UNREADABLE</source>
        <translation>The video changed or cannot be read any more, so it was not published.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_NETWORK</source>
        <translation>The connection to the service was lost. Please check your network and try again.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_SERVICE_FAILURE</source>
        <translation>The service could not take the video right now. Please try again later.</translation>
    </message>
    <message>
        <source>PUBLISH_ERROR_CANCELLED</source>
        <translation>Publishing was cancelled.</translation>
    </message>
    <message>
        <source>USER_NAME</source>
        <translation>User name</translation>
    </message>
    <message>
        <source>PASSWORD</source>
        <translation>Password</translation>
    </message>
    <message>
        <source>KEY_SHIFT</source>
        <translation>Shift</translation>
    </message>
    <message>
        <source>KEY_DELETE</source>
        <translation>Delete</translation>
    </message>
    <message>
        <source>KEY_COMMA</source>
        <translation>Comma</translation>
    </message>
    <message>
        <source>KEY_SPACE</source>
        <translation>Space</translation>
    </message>
    <message>
        <source>KEY_RETURN</source>
        <translation>Return</translation>
    </message>
    <message>
        <source>KEY_SPLIT</source>
        <translation>Split keyboard</translation>
    </message>
    <message>
        <source>REQUIRES_WIFI</source>
        <translation>requires Wi-Fi</translation>
    </message>
    <message>
        <source>LIST_POSITION_FORMAT</source>
        <translation>%1 of %2</translation>
    </message>
</context>
</TS>
