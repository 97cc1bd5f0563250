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
        <translation>The user name or password is not correct. Please try again.</translation>
    </message>
    <message>
        <source>TERMS_OF_USE</source>
        <translation>Terms of Use</translation>
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
